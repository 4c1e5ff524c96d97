#include "kemd/event.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kemd/exit_event.h"
#include "services/event_object.h"
#include "tests/traced_test.h"

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Used while static objects of other files are initialised, in any order.
static const bool kExitEventExists = ExitEvent().event != nullptr;

namespace {

EventHandle NewEvent(bool initialState, bool manualReset, const char* name = nullptr) {
    EventHandle handle;
    CreateEvent(handle, initialState, manualReset, name);
    return handle;
}

// Starts a thread that waits, and returns when it counts as a waiter.
std::future<int> StartWaiter(EventHandle& handle, uint32_t timeoutMs = kWaitForever) {
    const int waiters = handle.event->waiters;
    auto result = std::async(std::launch::async,
                             [&handle, timeoutMs] { return WaitForEvent(handle, timeoutMs); });
    EXPECT_TRUE(WaitFor([&] { return handle.event->waiters == waiters + 1; }));
    return result;
}

TEST(EventTest, OnlyAutoResetConsumesTheSignal) {
    for (const bool manual : {true, false}) {
        EventHandle event = NewEvent(false, manual);
        EXPECT_EQ(WaitForEvent(event, 0), kWaitTimedOut);
        EXPECT_EQ(SetEvent(event), 1);
        EXPECT_EQ(WaitForEvent(event, kWaitForever), 0);
        EXPECT_EQ(CheckEvent(event), manual ? 1 : 0);
        EXPECT_EQ(WaitForEvent(event, 0), manual ? 0 : kWaitTimedOut);
        EXPECT_EQ(ResetEvent(event), 1);
        EXPECT_EQ(CheckEvent(event), 0);
    }
}

TEST(EventTest, SignalThatComesWithTheTimeoutCounts) {
    constexpr int kTimeoutMs = 1000;
    EventHandle event = NewEvent(false, false);
    auto waiter = StartWaiter(event, kTimeoutMs);
    pthread_mutex_lock(&event.event->mutex);  // it waits and cannot return
    const bool isHeld = event.event->waiters == 1;
    const auto deadline = Clock::now() + milliseconds(kTimeoutMs);
    EXPECT_TRUE(isHeld && WaitFor([&] { return Clock::now() > deadline; }));
    event.event->IsSignaled = true;  // without a wake-up
    pthread_mutex_unlock(&event.event->mutex);
    EXPECT_EQ(waiter.get(), kWaitSignaled);
    EXPECT_EQ(CheckEvent(event), 0);
}

// A thread that is about to wait holds the mutex, so it misses no change.
TEST(EventTest, StateChangesOnlyUnderTheMutex) {
    for (auto* operation : {SetEvent, PulseEvent, ResetEvent, CloseEvent}) {
        EventHandle event = NewEvent(false, true);
        pthread_mutex_lock(&event.event->mutex);
        auto result = std::async(std::launch::async, [&] { return operation(event); });
        EXPECT_EQ(result.wait_for(milliseconds(50)), std::future_status::timeout);
        EXPECT_FALSE(event.event->IsSignaled);
        pthread_mutex_unlock(&event.event->mutex);
        EXPECT_EQ(result.get(), 1);
    }
}

TEST(EventTest, HandlesAreCopiedWhileOthersAreReleased) {
    constexpr int kRounds = 50'000;
    const EventHandle event = NewEvent(true, true);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&event] {
            EventHandle other;
            for (int round = 0; round < kRounds; ++round) other = EventHandle(event);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(event.event->refCount, 1);
}

TEST(EventTest, WakesAllWaitersOrOne) {
    const std::tuple<int (*)(EventHandle&), bool, int, int> cases[] = {
        {SetEvent, true, 0, 1},    {SetEvent, false, 1, 0},  {PulseEvent, true, 0, 0},
        {PulseEvent, false, 1, 0}, {CloseEvent, true, 0, 1}, {CloseEvent, false, 1, 0}};
    for (const auto& [wake, manual, left, state] : cases) {  // left: still waiting
        EventHandle event = NewEvent(false, manual);
        EventHandle copy(event);  // stays open
        auto first = StartWaiter(event);
        auto second = StartWaiter(event);
        EXPECT_EQ(ReinitEvent(event, true, manual), 0);
        EXPECT_EQ(wake(event), 1);
        ASSERT_TRUE(WaitFor([&, left = left] { return copy.event->waiters == left; }));
        EXPECT_EQ(CheckEvent(copy), state);
        if (left != 0) SetEvent(copy);
        EXPECT_EQ(first.get() + second.get(), 0);
    }
}

TEST(EventTest, EmptyAndClosedHandlesFail) {
    EventHandle closed = NewEvent(true, true);
    CloseEvent(closed);
    EventHandle empty;
    for (EventHandle* handle : {&closed, &empty}) {
        for (auto* operation : {SetEvent, PulseEvent, ResetEvent, CheckEvent, CloseEvent}) {
            EXPECT_EQ(operation(*handle), 0);
        }
        EXPECT_EQ(ReinitEvent(*handle, false, true), 0);
        EXPECT_EQ(WaitForEvent(*handle, 0), kWaitFailed);
    }
    EventHandle reopened(closed);
    EXPECT_EQ(CheckEvent(reopened), 1);
}

class EventTraceTest : public TracedTest {};

TEST_F(EventTraceTest, NameIsSharedUntilTheLastHandleGoes) {
    {
        EventHandle first = NewEvent(false, true, "shared");
        EventHandle second = NewEvent(true, false, "shared");
        EXPECT_EQ(SetEvent(second), 1);
        EXPECT_EQ(WaitForEvent(first, 0), 0);
        EXPECT_EQ(CheckEvent(first), 1);  // still manual reset
    }
    EventHandle fresh = NewEvent(true, false, "shared");
    EXPECT_EQ(fresh.event->refCount, 1);
    // Creating it again through its only handle keeps the event.
    CreateEvent(fresh, false, false, "shared");
    EXPECT_EQ(fresh.event->refCount, 1);
    EXPECT_EQ(CheckEvent(fresh), 1);
    EXPECT_TRUE(InOrder(Trace(), {"WARNING: manual setting mismatch for event 0x",
                                  "deleting event 0x", " <shared> (IsSignaled=1)\n"}));
}

TEST(EventTest, CancelledWaiterLeavesTheEventUsable) {
    EventHandle event = NewEvent(false, false);
    std::thread thread([&event] { WaitForEvent(event, kWaitForever); });
    EXPECT_TRUE(WaitFor([&] { return event.event->waiters == 1; }));
    pthread_cancel(thread.native_handle());
    thread.join();
    EXPECT_EQ(event.event->waiters, 0);
    EXPECT_EQ(SetEvent(event), 1);
    EXPECT_EQ(WaitForEvent(event, 0), kWaitSignaled);
}

TEST(EventTest, LastReleaseWaitsForTheWaiter) {
    auto event = std::make_unique<EventHandle>(NewEvent(false, true));
    auto waiter = StartWaiter(*event, 300);
    event.reset();
    EXPECT_EQ(waiter.get(), kWaitTimedOut);
}

TEST(EventDeathTest, ExitEventOutlivesMain) {
    EXPECT_TRUE(kExitEventExists && ExitEvent().event->IsManual);
    EXPECT_EQ(CheckEvent(ExitEvent()), 0);
    const auto exitWithWaiter = [] {
        alarm(20);  // ends a hanging exit
        std::thread([] { WaitForEvent(ExitEvent(), kWaitForever); }).detach();
        exit(WaitFor([] { return ExitEvent().event->waiters == 1; }) ? 7 : 1);
    };
    EXPECT_EXIT(exitWithWaiter(), testing::ExitedWithCode(7), "");
}

}  // namespace
