// Files that are written while they are read.
#include <random>

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
    // Writes so many records between the looks: messages only, or also into a ring.
    void WriteAndLook(int count, bool hasRing) {
        for (int i = 0; i < count; ++i) {
            SetClock(++m_second);
            const std::string text = std::to_string(m_second) + std::string(m_random() % 1500, 'x');
            hasRing&& i % 3 != 0 ? Trace(text) : Message(text.substr(0, 300));
            if (m_random() % 5 == 0 || i % 8 == 0) Look();
        }
        Look();
    }
    TraceMerge merge;
    Lines found;

    time_t m_second = kStart;

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
        WriteAndLook(6000, true);
        EXPECT_EQ("", Differ(written, found));
    }
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

TEST_F(FollowTest, CommandShowsRecordsAsTheyComeAndEndsWithItsReader) {
    Start(1);
    debug.InitDone();
    FILE* const shown = popen("exec /build/kemdctl trace -f 2>/tmp/err", "re");
    ASSERT_NE(nullptr, shown);
    std::array<char, 4096> line{};
    for (const char* text : {"first", "second", "third"}) {
        SetClock(++m_second);
        Message(text);
        const std::string expected = written.back() + "\n";
        while (line.data() != expected) {
            ASSERT_NE(nullptr, fgets(line.data(), line.size(), shown)) << ReadFile("/tmp/err");
        }
    }
    EXPECT_EQ(0, pclose(shown));
}

}  // namespace
