#include "kemd/event.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kemd/exit_event.h"
#include "services/event_object.h"
#include "tests/traced_test.h"

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Seen by the constructor of a static object of another file, in whatever order they run.
static const bool g_exitEventExists = ExitEvent().event != nullptr;

namespace {

EventHandle NewEvent(bool initialState, bool manualReset, const char* name = nullptr) {
    EventHandle handle;
    CreateEvent(handle, initialState, manualReset, name);
    return handle;
}

// A thread that waits without limit, or as long as it is told, and is counted as a waiter when this
// returns.
std::future<int> StartWaiter(EventHandle& handle, uint32_t timeoutMs = kWaitForever) {
    const int waiters = handle.event->waiters;
    auto result = std::async(std::launch::async,
                             [&handle, timeoutMs] { return WaitForEvent(handle, timeoutMs); });
    EXPECT_TRUE(WaitFor([&] { return handle.event->waiters == waiters + 1; }));
    return result;
}

TEST(EventTest, ManualResetStaysSignaled) {
    EventHandle event = NewEvent(false, true);
    EXPECT_EQ(WaitForEvent(event, 0), 102);
    EXPECT_EQ(SetEvent(event), 1);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForEvent(event, 0), 0);
    EXPECT_EQ(CheckEvent(event), 1);
    EXPECT_EQ(ResetEvent(event), 1);
    EXPECT_EQ(CheckEvent(event), 0);
    EXPECT_EQ(WaitForEvent(event, 0), 102);
}

TEST(EventTest, AutoResetIsConsumedByOneWait) {
    EventHandle event = NewEvent(false, false);
    EXPECT_EQ(SetEvent(event), 1);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(CheckEvent(event), 1);
    EXPECT_EQ(WaitForEvent(event, kWaitForever), 0);
    EXPECT_EQ(CheckEvent(event), 0);
    EXPECT_EQ(WaitForEvent(event, 0), 102);
}

TEST(EventTest, WaitEndsAtItsDeadline) {
    for (const uint32_t timeoutMs : {0, 30, 1005}) {
        EventHandle event = NewEvent(false, true);
        const auto start = Clock::now();
        EXPECT_EQ(WaitForEvent(event, timeoutMs), kWaitTimedOut);
        EXPECT_GE(Clock::now() - start, milliseconds(timeoutMs));
        EXPECT_LT(Clock::now() - start, milliseconds(timeoutMs + 900));
        EXPECT_EQ(event.event->waiters, 0);
    }
}

TEST(EventTest, SetWakesAllOrOne) {
    EventHandle manual = NewEvent(false, true);
    auto first = StartWaiter(manual);
    auto second = StartWaiter(manual);
    SetEvent(manual);
    EXPECT_EQ(first.get() + second.get(), 0);

    EventHandle automatic = NewEvent(false, false);
    first = StartWaiter(automatic);
    second = StartWaiter(automatic);
    SetEvent(automatic);
    ASSERT_TRUE(WaitFor([&] { return automatic.event->waiters == 1; }));
    EXPECT_EQ(CheckEvent(automatic), 0);
    SetEvent(automatic);
    EXPECT_EQ(first.get() + second.get(), 0);
    EXPECT_EQ(CheckEvent(automatic), 0);
}

TEST(EventTest, PulseWakesOnlyWhoWaits) {
    EventHandle event = NewEvent(true, true);
    EXPECT_EQ(PulseEvent(event), 1);
    EXPECT_EQ(CheckEvent(event), 0);
    EXPECT_EQ(WaitForEvent(event, 10), kWaitTimedOut);
    auto first = StartWaiter(event);
    auto second = StartWaiter(event);
    EXPECT_EQ(PulseEvent(event), 1);
    EXPECT_EQ(first.get() + second.get(), 0);
    EXPECT_EQ(CheckEvent(event), 0);
}

TEST(EventTest, CloseWakesTheWaiterAndEndsTheHandle) {
    for (const bool manual : {true, false}) {
        EventHandle event = NewEvent(false, manual);
        auto waiter = StartWaiter(event);
        EXPECT_EQ(CloseEvent(event), 1);
        EXPECT_EQ(waiter.get(), kWaitSignaled);
    }
}

TEST(EventTest, EmptyAndClosedHandlesFail) {
    EventHandle closed = NewEvent(true, true);
    CloseEvent(closed);
    EventHandle empty;
    for (EventHandle* handle : {&closed, &empty}) {
        EXPECT_EQ(SetEvent(*handle), 0);
        EXPECT_EQ(PulseEvent(*handle), 0);
        EXPECT_EQ(ResetEvent(*handle), 0);
        EXPECT_EQ(CheckEvent(*handle), 0);
        EXPECT_EQ(CloseEvent(*handle), 0);
        EXPECT_EQ(ReinitEvent(*handle, false, true), 0);
        EXPECT_EQ(WaitForEvent(*handle, 0), kWaitFailed);
    }
    EventHandle reopened(closed);
    EXPECT_EQ(CheckEvent(reopened), 1);
    EXPECT_EQ(closed.event->refCount, 2);
    const EventHandle nothing(empty);
    EXPECT_EQ(nothing.event, nullptr);
}

TEST(EventTest, ReferencesAreCounted) {
    EventHandle event = NewEvent(false, true);
    {
        EventHandle copy(event);
        EventHandle other = NewEvent(false, true);
        other = event;
        EventHandle& self = other;
        other = self;
        EXPECT_EQ(event.event->refCount, 3);
        EXPECT_EQ(SetEvent(copy), 1);
    }
    EXPECT_EQ(event.event->refCount, 1);
    EXPECT_EQ(CheckEvent(event), 1);
}

TEST(EventTest, ReinitFailsWhileSomebodyWaits) {
    EventHandle event = NewEvent(false, true);
    auto waiter = StartWaiter(event);
    EXPECT_EQ(ReinitEvent(event, true, false), 0);
    SetEvent(event);
    EXPECT_EQ(waiter.get(), kWaitSignaled);
    EXPECT_EQ(ReinitEvent(event, true, false), 1);
    EXPECT_EQ(WaitForEvent(event, 0), kWaitSignaled);
    EXPECT_EQ(WaitForEvent(event, 0), kWaitTimedOut);
}

class EventTraceTest : public TracedTest {};

TEST_F(EventTraceTest, NameIsSharedUntilTheLastHandleGoes) {
    {
        EventHandle first = NewEvent(false, true, "shared");
        EventHandle second = NewEvent(true, false, "shared");
        EXPECT_EQ(second.event, first.event);
        EXPECT_EQ(first.event->refCount, 2);
        EXPECT_EQ(CheckEvent(second), 0);
        EXPECT_EQ(SetEvent(second), 1);
        EXPECT_EQ(WaitForEvent(first, 0), 0);
        EXPECT_EQ(CheckEvent(first), 1);  // still manual reset
    }
    EventHandle fresh = NewEvent(false, false, "shared");
    EXPECT_EQ(fresh.event->refCount, 1);
    EXPECT_EQ(CheckEvent(fresh), 0);
    EXPECT_TRUE(InOrder(
        Trace(),
        {"creating event 0x", " <shared> (IsSignaled=0)\n", "refCount for event 0x",
         " <shared> incremented (IsSignaled=0)\n", "WARNING: manual setting mismatch for event 0x",
         " <shared>\n", " <shared> IsSignaled=0 --> IsSignaled=1\n", "decr refcount on event 0x",
         "deleting event 0x", " <shared> (IsSignaled=1)\n", "creating event 0x"}));
}

TEST(EventTest, ManyNamesStayFindable) {
    constexpr int kCount = 40;
    std::vector<EventHandle> handles(kCount);
    // Neither in ascending nor in descending order.
    const auto name = [](int i) { return "event " + std::to_string(i * 17 % kCount); };
    for (int i = 0; i < kCount; ++i) CreateEvent(handles[i], false, true, name(i).c_str());
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(NewEvent(false, true, name(i).c_str()).event, handles[i].event) << name(i);
    }
    handles.erase(handles.begin() + 10);
    for (int i = 10; i < kCount - 1; ++i) {
        EXPECT_EQ(NewEvent(false, true, name(i + 1).c_str()).event, handles[i].event) << i;
    }
}

TEST(EventTest, CancelledWaiterLeavesTheEventUsable) {
    EventHandle event = NewEvent(false, false);
    const auto wait = [](void* handle) -> void* {
        WaitForEvent(*static_cast<EventHandle*>(handle), kWaitForever);
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, wait, &event), 0);
    ASSERT_TRUE(WaitFor([&] { return event.event->waiters == 1; }));
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(event.event->waiters, 0);
    EXPECT_EQ(SetEvent(event), 1);
    EXPECT_EQ(WaitForEvent(event, 0), kWaitSignaled);
}

TEST(EventTest, LastReleaseWaitsForTheWaiter) {
    auto event = std::make_unique<EventHandle>(NewEvent(false, true));
    const auto start = Clock::now();
    auto waiter = StartWaiter(*event, 300);
    event.reset();
    EXPECT_GE(Clock::now() - start, milliseconds(300));
    EXPECT_EQ(waiter.get(), kWaitTimedOut);
}

TEST(EventTest, ExitEventIsThereBeforeMain) {
    EXPECT_TRUE(g_exitEventExists);
    EXPECT_EQ(CheckEvent(ExitEvent()), 0);
    EXPECT_TRUE(ExitEvent().event->IsManual);
    EXPECT_EQ(ExitEvent().event->name, nullptr);
}

TEST(EventDeathTest, ProcessEndsWhileAThreadWaitsOnTheExitEvent) {
    const auto exitWithWaiter = [] {
        alarm(20);  // ends a hanging exit
        std::thread([] { WaitForEvent(ExitEvent(), kWaitForever); }).detach();
        const bool waits = WaitFor([] { return ExitEvent().event->waiters == 1; });
        exit(waits ? 7 : 1);
    };
    EXPECT_EXIT(exitWithWaiter(), testing::ExitedWithCode(7), "");
}

}  // namespace
