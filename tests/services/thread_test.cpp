#include "kemd/thread.h"

#include <atomic>
#include <iterator>
#include <thread>

#include "kemd/event.h"
#include "tests/traced_test.h"

namespace {

class ThreadTest : public TracedTest {};

void* WaitForIt(void* handle) {
    WaitForEvent(*static_cast<EventHandle*>(handle), kWaitForever);
    return handle;
}

TEST_F(ThreadTest, JoinableThreadIsWaitedForWhateverTheTimeout) {
    EventHandle event;
    CreateEvent(event, false, true, nullptr);
    CThread thread;
    EXPECT_TRUE(thread.WaitForTermination(0));
    EXPECT_FALSE(thread.Kill());
    ASSERT_TRUE(thread.Start(WaitForIt, &event, 0, true, 0x1234, true));
    std::thread setter([&] { SetEvent(event); });  // the thread cannot end earlier
    EXPECT_TRUE(thread.WaitForTermination(1));
    EXPECT_EQ(CheckEvent(event), 1);
    EXPECT_EQ(thread.m_thread, 0U);
    setter.join();
    ASSERT_TRUE(thread.Start(WaitForIt, &event, 0, false, 0, true));
    EXPECT_TRUE(thread.Kill());
    EXPECT_EQ(thread.m_thread, 0U);
    EXPECT_TRUE(
        InOrder(Trace(), {"CThread::Kill: Thread = 0x000000000 doesn't exist !\n",
                          "termination with timeout\n", "CThread::Kill: a joinable Thread = 0x"}));
}

std::atomic<int> g_running{0};

// Counts the thread until it ends, even by cancellation.
void* RunCounted(void* event) {
    struct Mark {
        Mark() { ++g_running; }
        ~Mark() { --g_running; }
    } const mark;
    return WaitForIt(event);
}

std::ptrdiff_t CountThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
}

TEST_F(ThreadTest, DetachedThreadIsCancelledOnlyWhileItLives) {
    const std::ptrdiff_t threads = CountThreads();
    EventHandle event;
    CreateEvent(event, false, true, nullptr);
    CThread thread;
    ASSERT_TRUE(thread.Start(RunCounted, &event, 0, false, 0, false));
    EXPECT_FALSE(thread.WaitForTermination(-1));
    ASSERT_TRUE(WaitFor([&] { return g_running == 1; }));
    thread.m_killAliveThread = true;
    ASSERT_TRUE(thread.Start(RunCounted, &event, 0, false, 0, false));  // ends the first one
    // Gone completely: the system reuses the id that was freed last.
    ASSERT_TRUE(WaitFor([&] { return CountThreads() == threads + 1 && g_running == 1; }));
    const pthread_t second = thread.m_thread;
    SetEvent(event);
    // The thread is gone, and another one gets its id.
    ASSERT_TRUE(WaitFor([&] { return CountThreads() <= threads; }));
    ResetEvent(event);
    pthread_t other{};
    ASSERT_EQ(pthread_create(&other, nullptr, WaitForIt, &event), 0);
    EXPECT_EQ(other, second);
    EXPECT_TRUE(thread.Kill());
    EXPECT_EQ(thread.m_thread, 0U);
    SetEvent(event);
    void* result = nullptr;
    pthread_join(other, &result);
    EXPECT_EQ(result, &event);
    EXPECT_TRUE(InOrder(Trace(), {"Can't wait for detached thread 0x", " cancel invoked\n"}));
    EXPECT_FALSE(InOrder(Trace(), {" cancel invoked\n", " cancel invoked\n"}));
}

TEST_F(ThreadTest, FailedStartTracesWhyAndKeepsTheThread) {
    EventHandle event;
    CreateEvent(event, true, true, nullptr);
    CThread thread;
    ASSERT_TRUE(thread.Start(WaitForIt, &event, 0, false, 0, true));
    const pthread_t first = thread.m_thread;
    EXPECT_FALSE(thread.Start(WaitForIt, &event, 1000, false, 0, false));
    EXPECT_EQ(thread.m_thread, first);
    thread.m_waitable = true;
    EXPECT_TRUE(thread.WaitForTermination(-1));
    // Without the privilege for the priority no thread starts.
    const bool started = thread.Start(WaitForIt, &event, 63, false, 0, true);
    EXPECT_TRUE(!started || thread.WaitForTermination(-1));
    EXPECT_TRUE(InOrder(Trace(),
                        {"pthread_attr_setschedparam failed: error=22 priority=1000\n",
                         started ? "created, Prio=63, Waitable=1" : "pthread_create failed: 1\n"}));
}

}  // namespace
