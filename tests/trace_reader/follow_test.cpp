// Files that are written while they are read.
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "tests/trace_reader/written.h"

namespace {

class FollowTest : public ReaderTest {
  protected:
    void SetUp() override {
        ReaderTest::SetUp();
        merge.Follow();
        for (const std::string& path : {kStartupRing, kRuntimeRing, kLog}) merge.Add(path);
        EXPECT_EQ(Lines{}, Read(merge));
    }
    // Looks until there is nothing new.
    void Look() {
        while (merge.Advance()) {
            const Lines more = Read(merge);
            found.insert(found.end(), more.begin(), more.end());
        }
    }
    void BeginRun(int weight, size_t limit) {
        Start(weight, limit);
        if (weight > 0) Note("### Start of initialization. ###");
    }
    void EndStart(bool hasRing) {
        debug.InitDone();
        if (!hasRing) return;
        // The reader had the file open when it was compressed and unlinked.
        Note("### End of initialization. ###");
        Note("### Start of initialization. ###");
    }
    // Writes so many records and looks now and then: messages only, or also into a ring. Some have
    // the same time, and all the same end.
    void WriteAndLook(int count, bool hasRing) {
        for (int i = 0; i < count; ++i) {
            Write(hasRing && i % 3 != 0);
            if (m_random() % 5 == 0 || i % 8 == 0) Look();
        }
        Look();
    }
    void Write(bool isTrace) {
        const int number = static_cast<int>(written.size());
        if (number % 4 == 0) SetClock(++m_second);
        const std::string text = std::to_string(number) + std::string(m_random() % 1500, 'x');
        const std::string lines =
            "two lines, " + text.substr(0, 300) + "\nand " + text.substr(0, 9);
        isTrace ? Trace(text) : Message(number % 9 == 0 ? lines : text.substr(0, 300));
    }
    // The same in bursts, while another thread looks.
    void WriteBursts(int bursts) {
        for (int i = 0; i < bursts; ++i) {
            for (int record = 0; record < 25; ++record) Write(record % 4 != 0);
            while (m_found < written.size() && !HasFailure()) std::this_thread::yield();
        }
    }
    TraceMerge merge;
    Lines found;

    time_t m_second = kStart;
    std::atomic<size_t> m_found = 0;

  private:
    std::mt19937 m_random{1};
};

TEST_F(FollowTest, LogAndRingsThroughTheirWrapsAndRestarts) {
    for (const int weight : {0, 0, 1, 1}) {
        const bool hasRing = weight > 0;
        BeginRun(weight, hasRing ? 51'200 : 12'000);
        WriteAndLook(100, hasRing);
        EndStart(hasRing);
        WriteAndLook(hasRing ? 4000 : 300, hasRing);
        ASSERT_EQ("", Differ(written, found));
    }
}

TEST_F(FollowTest, LinesThatAreAsInTheCycleBeforeAreShown) {
    Start(0, 5000);
    debug.InitDone();
    for (int i = 0; i < 400; ++i) {
        SetClock(++m_second);
        Message("value " + std::to_string(1000 + i) + "\nstate ok");
        Look();
    }
    ASSERT_EQ(written.size(), found.size());
    // Nothing shows where the last record before a wrap ends.
    int cut = 0;
    for (size_t i = 0; i < found.size(); ++i) cut += found[i] == written[i] ? 0 : 1;
    EXPECT_LE(cut, 6);
}

TEST_F(FollowTest, NothingIsLostRepeatedOrMovedWhileAnotherThreadWrites) {
    std::atomic<bool> isWriting = true;
    std::thread writer([&] {
        for (int run = 0; run < 2; ++run) {
            BeginRun(1, 20'000);
            WriteBursts(4);
            EndStart(true);
            WriteBursts(120);
        }
        isWriting = false;
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (isWriting) {
        Look();
        m_found = found.size();
        if (std::chrono::steady_clock::now() > end) ADD_FAILURE() << (m_found = SIZE_MAX);
    }
    writer.join();
    Look();
    EXPECT_EQ("", Differ(written, found));
}

TEST_F(FollowTest, WriterThatOvertakesTheReaderNeverLeavesATornRecord) {
    for (const int more : {2500, 4500, 18'000}) {
        StartAgain(4);
        debug.InitDone();
        TraceMany(0, 12'000);
        OpenSource source;
        TraceRecord record;
        // It has read one block, and the rest comes later.
        ASSERT_TRUE(source.Next(record));
        Lines lines = {std::string(record.line)};
        TraceMany(12'000, 12'000 + more);
        const Lines rest = Read(source);
        lines.insert(lines.end(), rest.begin(), rest.end());
        EXPECT_TRUE(std::includes(written.begin(), written.end(), lines.begin(), lines.end()));
        EXPECT_GT(source.Facts().lost, 0u);
    }
}

// What a power cut leaves, and what the next run makes of it.
TEST_F(FollowTest, FileOfZerosIsReadOnceItIsWritten) {
    StartRing();
    TraceMany(0, 10);
    const std::string ring = ReadFile(kRuntimeRing);
    constexpr const char* kFile = "/tmp/zeros";
    WriteFile(kFile, std::string(ring.size(), '\0'));
    TraceSource source(kFile, 0);
    source.Follow();
    EXPECT_TRUE(source.Open());
    EXPECT_TRUE(source.IsGood());
    EXPECT_FALSE(source.Advance());
    WriteFile(kFile, ring);
    EXPECT_TRUE(source.Advance());
    EXPECT_EQ("", Differ(Whole(), Read(source)));
}

}  // namespace
