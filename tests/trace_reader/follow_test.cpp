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
    // Writes so many records between the looks: messages only, or also into a ring. Some have the
    // same time, and all the same end.
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

TEST_F(FollowTest, LogThroughItsWrapsAndARestart) {
    for (int run = 0; run < 3; ++run) {
        Start(0, 12'000);
        WriteAndLook(50, false);
        debug.InitDone();
        WriteAndLook(300, false);
        EXPECT_EQ("", Differ(written, found));
        EXPECT_EQ(written.size(), merge.Sources().back()->Facts().records);
    }
}

TEST_F(FollowTest, RingsThroughTheirWrapsAndARestart) {
    for (int run = 0; run < 2; ++run) {
        Start(1);
        Note("### Start of initialization. ###");
        WriteAndLook(200, true);
        debug.InitDone();
        // The reader had the file open when it was compressed and unlinked.
        Note("### End of initialization. ###");
        Note("### Start of initialization. ###");
        WriteAndLook(4000, true);
        EXPECT_EQ("", Differ(written, found));
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

TEST_F(FollowTest, HeaderThatGrowsOverTheFirstRecordOfItsRing) {
    Start(1, 100'000);
    debug.InitDone();
    Note("### Start of initialization. ###");
    WriteAndLook(500, true);
    GrowHeader();
    Note("kemd Command Line Options:");
    for (size_t i = 0; i < words.size(); ++i)
        Note("argv[" + std::to_string(i) + "] = \"" + words[i] + "\"");
    WriteAndLook(4000, true);
    EXPECT_EQ("", Differ(written, found));
}

TEST_F(FollowTest, NothingIsLostRepeatedOrMovedWhileAnotherThreadWrites) {
    std::atomic<bool> isWriting = true;
    std::thread writer([&] {
        for (int run = 0; run < 2; ++run) {
            Start(1, 20'000);
            Note("### Start of initialization. ###");
            WriteBursts(4);
            debug.InitDone();
            Note("### End of initialization. ###");
            Note("### Start of initialization. ###");
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
    for (const int more : {1000, 2500, 4500, 9000}) {
        SCOPED_TRACE(more);
        written.clear();
        SetClock(kStart);
        Start(4);
        debug.InitDone();
        const auto writeRecord = [this](int i) {
            SetClock(kStart + i);
            Trace(std::to_string(i) + std::string(static_cast<size_t>(500 + i * 37 % 1000), 'x'));
        };
        for (int i = 0; i < 6000; ++i) writeRecord(i);
        TraceSource source(kRuntimeRing, 0);
        ASSERT_TRUE(source.Open());
        TraceRecord record;
        Lines lines;
        // It has read one block, and the rest comes later.
        ASSERT_TRUE(source.Next(record));
        lines.emplace_back(record.line);
        for (int i = 6000; i < 6000 + more; ++i) writeRecord(i);
        const Lines rest = Read(source);
        lines.insert(lines.end(), rest.begin(), rest.end());
        EXPECT_TRUE(std::includes(written.begin(), written.end(), lines.begin(), lines.end()));
        EXPECT_GT(source.Facts().lost, 0u);
    }
}

}  // namespace
