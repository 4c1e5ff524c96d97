#include "trace/debug.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <semaphore>
#include <sstream>
#include <thread>

#include "kemd/trace.h"
#include "tests/trace/trace_world.h"

namespace {

class DebugTest : public TraceTest {
  protected:
    // The records of a ring file, after those of its opening, up to the newest one.
    static std::string RingRecords(const std::string& path) {
        const std::string file = ReadFile(path), start = "### Start of initialization. ###\n";
        const size_t begin = file.find(start) + start.size();
        return file.substr(begin, file.find(kTrailer, begin) - begin);
    }
    // Whether these are the new records since the last call.
    void ExpectNew(const std::string& ring, const std::string& log) {
        m_ring += ring;
        m_log += log;
        EXPECT_EQ(m_ring, RingRecords(kStartupRing));
        EXPECT_EQ(m_log, ReadFile(kLog));
    }

  private:
    std::string m_ring, m_log;
};

// For the daemon and, through the functions of kemd/trace.h, for its modules.
TEST_F(DebugTest, TargetAndSwitchSayWhichRecordsGoWhere) {
    KemdMessage("early", "lost");
    ASSERT_TRUE(StartRing(Debug));
    for (const unsigned target :
         {kTargetRing, kTargetLog, kTargetNone, TraceTarget{3}, kTargetRing}) {
        Debug.SetTraceTarget(target);
        KemdTrace("a module", 5, "\n%d %s", 1, "one");
        Debug.Trace(6, "above the level");
        KemdTrace(nullptr, 6, "above the level");
        Debug.Message("\nb\n");
        KemdMessage("a module", "c");
        Debug.Message(1000, "d");
        const std::string messages = Record("b") + Record("c", "a module") + Record("d"),
                          all = Record("1 one", "a module") + messages;
        ExpectNew(target == kTargetRing ? all : "", target == kTargetLog ? all : messages);
    }
    for (const bool isOn : {false, true}) {
        EXPECT_TRUE(Debug.SwitchTrace(isOn));
        EXPECT_EQ(isOn, KemdTraceOn() == 1);
        for (unsigned level = 0; level < 8; ++level) Debug.Trace(level, "%u", level);
        ExpectNew(Records(isOn ? Lines{"0", "1", "2", "3", "4", "5"} : Lines{"0"}), "");
    }
    Debug.SetTraceTarget(kTargetLog);
    Debug.InitDone();  // the ring buffers are switched only while they are the target
    EXPECT_FALSE(fs::exists(kRuntimeRing));
}

TEST_F(DebugTest, RecordsOfOtherProcessesHaveTheirThread) {
    ASSERT_TRUE(StartRing(Debug));
    const std::string prefix = Prefix("other");
    const auto forwarded = [&](const std::string& text) {
        return prefix.substr(0, 24) + "[0000BEEF] " + prefix.substr(35) + text + "\n";
    };
    KemdTraceForward("other", 5, 0xbeef, "100 %s\n");
    KemdTraceForward("other", 6, 0xbeef, "above the level");
    KemdTraceForward("other", 0, 0xbeef, "a message");
    ExpectNew(forwarded("100 %s") + forwarded("a message"), forwarded("a message"));
    Debug.SwitchTrace(false);
    KemdTraceForward("other", 1, 0xbeef, "lost");
    KemdTraceForward("other", 0, 0xbeef, "a message");
    ExpectNew(forwarded("a message"), forwarded("a message"));
}

TEST_F(DebugTest, SharedLevelFollowsEachChange) {
    uint32_t shared = 99;
    Configure("FileDebugLevel = 4\nRingBufferSizeFactor = 1\nRingBufferSizeWeight = 1\n");
    KemdTraceShareLevel(&shared);
    const auto expect = [&](unsigned level, const char* change) {
        EXPECT_EQ(level, shared) << change;
        EXPECT_EQ(level, KemdTraceLevel()) << change;
    };
    expect(0, "not open yet");
    ASSERT_TRUE(Debug.Init("kemd"));
    expect(4, "Init");
    Debug.InitDone();
    expect(4, "the run-time ring");
    EXPECT_EQ(0, KemdTraceSetLevel(2));
    expect(2, "another level");
    Debug.SwitchTrace(false);
    expect(0, "off");
    Debug.SwitchTrace(true);
    expect(4, "on");
    if (const pid_t child = fork(); child == 0) _exit(0);
    EXPECT_GT(wait(nullptr), 0);
    expect(4, "a child of ours");
    KemdTraceShareLevel(nullptr);
    Debug.Close();
    EXPECT_EQ(4U, shared);
}

TEST_F(DebugTest, SecondInitClosesWhatWasOpen) {
    ASSERT_TRUE(StartRing(debug));
    const auto open = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto before = open();
    for (const char* name : {"other", "", "kemd"}) ASSERT_TRUE(debug.Init(name)) << name;
    debug.InitDone();
    EXPECT_EQ(before, open());
    EXPECT_EQ(FD_CLOEXEC, fcntl(DescriptorOf(kRuntimeRing), F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, fcntl(DescriptorOf(kLog), F_GETFD));
    debug.Close();
    EXPECT_EQ(before - 2, open());
    debug.SwitchTrace(true);
    EXPECT_FALSE(debug.IsTraceOn());
}

constexpr size_t kThreads = 4, kRecords = 2000;

// How many records of each thread there are, whole and in order, and how many other lines.
std::vector<size_t> CountRecords(const std::string& records) {
    std::istringstream lines(records);
    std::vector<size_t> counts(kThreads + 1, 0);
    for (std::string line; std::getline(lines, line);) {
        const std::string text = line.substr(std::min(line.size(), Prefix().size()));
        size_t id = 0;
        const bool isNext =
            sscanf(text.c_str(), "thread %zu", &id) == 1 && id < kThreads &&
            text == "thread " + std::to_string(id) + " record " + std::to_string(counts[id]);
        ++counts[isNext ? id : kThreads];
    }
    return counts;
}

// Across the end of start-up, whose compression the threads wait for.
TEST_F(DebugTest, RecordsOfThreadsAreWholeAndComplete) {
    setenv("OV_LOG_FILE_MAX_SIZE", "100000000", 1);
    ASSERT_TRUE(StartRing(debug));
    std::vector<std::thread> threads;
    for (size_t id = 0; id < kThreads; ++id) {
        threads.emplace_back([this, id] {
            const char* const format = "thread %zu record %zu";
            for (size_t i = 0; i < kRecords; ++i)
                id < 2 ? debug.Message(format, id, i) : debug.Trace(1, format, id, i);
        });
    }
    debug.InitDone();
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(0, system(("gzip -d " + kStartupRing).c_str()));
    EXPECT_EQ((std::vector<size_t>{kRecords, kRecords, kRecords, kRecords, 1}),  // end of start-up
              CountRecords(RingRecords(kStartupRing) + RingRecords(kRuntimeRing)));
    EXPECT_EQ((std::vector<size_t>{kRecords, kRecords, 0, 0, 0}), CountRecords(ReadFile(kLog)));
}

// Even when another thread of the parent holds the lock at that moment.
TEST_F(DebugTest, ForkedChildTracesNothingAndNeverWaits) {
    static std::binary_semaphore held(0), release(0);
    setenv("OV_LOG_DYNAMIC_UPDATE", "1", 1);
    ASSERT_TRUE(StartRing(Debug));
    OnNextRecord([] {
        held.release();
        release.acquire();
    });
    std::thread holder([] { KemdMessage("module", "of the parent"); });
    held.acquire();
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);  // ends a child that would wait for ever
        KemdTrace("module", 1, "of the child");
        Debug.SwitchTrace(true);
        Debug.SetTraceTarget(kTargetRing);
        Debug.InitDone();
        Debug.Init("kemd");
        Debug.Trace(0, "of the child");
        KemdMessage("module", "of the child");
        _exit(KemdTraceOn());
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    release.release();
    holder.join();
    Debug.Message("after it");
    for (const std::string& text : {RingRecords(kStartupRing), ReadFile(kLog)}) {
        EXPECT_TRUE(text.ends_with(" of the parent\n" + Record("after it"))) << text;
        EXPECT_FALSE(Contains(text, "of the child"));
    }
}

TEST_F(DebugTest, CancelledThreadLeavesTheLockFreeAndIsCancelled) {
    Configure("FileDebugLevel=5\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1");
    ASSERT_TRUE(debug.Init("kemd"));  // with the memory column, for which it reads a file
    const auto run = [](void* object) -> void* {
        pthread_cancel(pthread_self());  // acts at the next cancellation point
        static_cast<CDebug*>(object)->Trace(1, "to the ring");  // ... which must not be in here
        static_cast<CDebug*>(object)->Message("to both");
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, run, &debug));
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(PTHREAD_CANCELED, result);
    debug.Message("the lock is free");
    EXPECT_TRUE(InOrder(RingRecords(kStartupRing), {" to the ring\n", " to both\n", " free\n"}));
    EXPECT_TRUE(InOrder(ReadFile(kLog), {" to both\n", " the lock is free\n"}));
}

}  // namespace
