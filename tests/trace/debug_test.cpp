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
    void TearDown() override { Debug.Close(); }

    // The records of a ring file, after those of its opening, up to the newest one.
    static std::string RingRecords(const std::string& path) {
        const std::string file = ReadFile(path), start = "### Start of initialization. ###\n";
        const size_t begin = file.find(start) + start.size();
        return file.substr(begin, file.find(kTrailer, begin) - begin);
    }
    // Whether these are the new records since the last call.
    void ExpectNew(const Lines& ring, const Lines& log) {
        m_ring += Records(ring);
        m_log += Records(log);
        EXPECT_EQ(m_ring, RingRecords(kStartupRing));
        EXPECT_EQ(m_log, ReadFile(kLog));
    }

  private:
    std::string m_ring, m_log;
};

TEST_F(DebugTest, TargetSaysWhereRecordsGo) {
    ASSERT_TRUE(StartRing(debug));
    for (const unsigned target :
         {kTargetRing, kTargetLog, kTargetNone, TraceTarget{3}, kTargetRing}) {
        debug.SetTraceTarget(target);
        debug.Trace(5, "a");
        debug.Trace(6, "above the level");
        debug.Message("\nb\n");
        debug.Message(1000, "c");
        ExpectNew(target == kTargetRing ? Lines{"a", "b", "c"} : Lines{},
                  target == kTargetLog ? Lines{"a", "b", "c"} : Lines{"b", "c"});
    }
    debug.SetTraceTarget(kTargetLog);
    debug.InitDone();  // the ring buffers are switched only while they are the target
    EXPECT_FALSE(fs::exists(kRuntimeRing));
}

TEST_F(DebugTest, SwitchTraceStopsAllLevelsButZeroAndRestoresTheConfiguredOne) {
    ASSERT_TRUE(StartRing(debug));
    const auto traceAll = [&] {
        for (unsigned level = 0; level < 8; ++level) debug.Trace(level, "%u", level);
    };
    for (int i = 0; i < 2; ++i) {
        traceAll();
        ExpectNew({"0", "1", "2", "3", "4", "5"}, {});
        EXPECT_TRUE(debug.SwitchTrace(false));
        EXPECT_FALSE(debug.IsTraceOn());
        traceAll();
        ExpectNew({"0"}, {});
        EXPECT_TRUE(debug.SwitchTrace(true));
        EXPECT_TRUE(debug.IsTraceOn());
    }
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

TEST_F(DebugTest, ModulesTraceUnderTheirTag) {
    KemdMessage("early", "lost");
    EXPECT_EQ(0, KemdTraceOn());
    ASSERT_TRUE(StartRing(Debug));
    EXPECT_EQ(1, KemdTraceOn());
    KemdTrace("module", 5, "\n%d %s", 1, "one");
    KemdTrace("module", 6, "above the level");
    KemdTrace(nullptr, 1, "two");
    KemdMessage("module", "three");
    Debug.SwitchTrace(false);
    KemdTrace("module", 0, "switched off");
    EXPECT_EQ(Record("1 one", "module") + Record("two") + Record("three", "module"),
              RingRecords(kStartupRing));
    EXPECT_EQ(Record("three", "module"), ReadFile(kLog));
}

// Each record of each thread once and in order, and so many others.
void ExpectWhole(const std::string& records, size_t threads, size_t perThread, size_t others) {
    std::istringstream lines(records);
    std::vector<size_t> next(threads, 0);
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const std::string text = line.substr(std::min(line.size(), Prefix().size()));
        size_t id = 0;
        if (sscanf(text.c_str(), "thread %zu", &id) != 1 || id >= threads) continue;
        EXPECT_EQ("thread " + std::to_string(id) + " record " + std::to_string(next[id]++), text);
    }
    EXPECT_EQ(std::vector<size_t>(threads, perThread), next);
    EXPECT_EQ(threads * perThread + others, count);
}

// In the ring across the end of start-up, whose compression they wait for, and in the log.
TEST_F(DebugTest, RecordsOfThreadsAreWholeAndComplete) {
    constexpr size_t kThreads = 4, kRecords = 2000;
    setenv("OV_LOG_FILE_MAX_SIZE", "100000000", 1);
    for (const unsigned target : {kTargetRing, kTargetLog}) {
        ASSERT_TRUE(StartRing(debug));
        debug.SetTraceTarget(target);
        std::vector<std::thread> threads;
        for (size_t id = 0; id < kThreads; ++id) {
            threads.emplace_back([this, id] {
                for (size_t i = 0; i < kRecords; ++i)
                    debug.Trace(1, "thread %zu record %zu", id, i);
            });
        }
        debug.InitDone();
        for (std::thread& thread : threads) thread.join();
        if (target == kTargetLog) {
            ExpectWhole(ReadFile(kLog), kThreads, kRecords, 0);
            continue;
        }
        ASSERT_EQ(0, system(("gzip -d " + kStartupRing).c_str()));
        ExpectWhole(RingRecords(kStartupRing) + RingRecords(kRuntimeRing), kThreads, kRecords,
                    1);  // the end of start-up
    }
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
        alarm(60);  // in place of a child that waits for ever
        for (int again = 0; again < 2; ++again) {
            KemdTrace("module", 1, "of the child");
            KemdMessage("module", "of the child");
            Debug.Trace(0, "of the child");
            Debug.SwitchTrace(true);
            Debug.SetTraceTarget(kTargetRing);
            Debug.InitDone();
            Debug.Init("kemd");
        }
        _exit(KemdTraceOn());
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    release.release();
    holder.join();
    Debug.Message("after it");
    EXPECT_TRUE(InOrder(RingRecords(kStartupRing), {" of the parent\n" + Record("after it")}));
    EXPECT_TRUE(InOrder(ReadFile(kLog), {" of the parent\n" + Record("after it")}));
    EXPECT_FALSE(Contains(ReadFile(kStartupRing) + ReadFile(kLog), "of the child"));
}

TEST_F(DebugTest, CancelledThreadLeavesTheLockFreeAndIsCancelled) {
    Configure("FileDebugLevel=5\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1");
    ASSERT_TRUE(debug.Init("kemd"));  // with the memory column, which takes a file to be read
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
