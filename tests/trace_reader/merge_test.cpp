// Log and rings as one stream.
#include "tests/trace_reader/written.h"

namespace {

class MergeTest : public ReaderTest {
  protected:
    // A whole run: messages and records of the start, then those that come later. The clock goes
    // back once, before the record with this number.
    void Run(int jump) {
        StartAgain(1);
        Note("### Start of initialization. ###");
        for (int number = 0; number < 200; ++number) {
            if (number == 100) {
                debug.InitDone();
                Note("### End of initialization. ###");
                Note("### Start of initialization. ###");
            }
            SetClock(kStart + number - (number >= jump ? 3600 : 0));
            // Now and then two records that do not differ.
            if (number % 10 == 3) Message("message " + std::to_string(number));
            if (number % 20 == 13) Message("message " + std::to_string(number));
            if (number % 50 == 0) Message(std::to_string(number) + std::string(1200, 'y'));
            Trace(std::to_string(number) + std::string(number % 9 == 0 ? 1500 : 20, 'x'));
        }
    }
    static Lines ReadAll(bool inBlocks) {
        TraceMerge merge;
        for (const std::string& path : {kLog, kStartupRing + ".gz", kRuntimeRing, kLog})
            merge.Add(path);
        if (!inBlocks) return Read(merge);
        Lines lines;
        std::string text;
        for (TraceRecord record; merge.Next(record);) {
            lines.emplace_back(record.line);
            for (RecordBlock block; merge.NextBlock(block); inBlock += block.count) {
                std::istringstream stream{std::string(block.lines)};
                while (std::getline(stream, text)) lines.push_back(text);
            }
        }
        return lines;
    }
    static inline uint64_t inBlock = 0;  // records that came with others
};

TEST_F(MergeTest, OneOrderAndEachMessageOnce) {
    for (const int jump : {10'000, 30, 75, 100, 130, 199}) {
        Run(jump);
        EXPECT_EQ("", Differ(written, ReadAll(false))) << jump;
        EXPECT_EQ("", Differ(written, ReadAll(true)));
    }
    EXPECT_GT(inBlock, 300u);
}

TEST_F(MergeTest, RecordsOfOneMillisecondStayInTheOrderOfWriting) {
    StartRing();
    Message("only in the log");
    for (int i = 0; i < 1500; ++i) Trace(std::to_string(i) + std::string(900, 'z'));
    Message("in both");
    debug.SetTraceTarget(kTargetLog);
    Message("between");
    debug.SetTraceTarget(kTargetRing);
    Message("in both again");
    Trace("the last");
    TraceMerge merge;
    merge.Add(kLog);
    merge.Add(kRuntimeRing);
    // What still stands in one of the files.
    Lines kept = Whole(kLog);
    for (const std::string& record : Whole()) kept.push_back(record);
    std::erase_if(written, [&kept](const std::string& record) {
        return std::find(kept.begin(), kept.end(), record) == kept.end();
    });
    ASSERT_TRUE(written.front().ends_with("only in the log"));
    ASSERT_GT(1500u, written.size());  // the ring has wrapped
    EXPECT_EQ("", Differ(written, Read(merge)));
}

}  // namespace
