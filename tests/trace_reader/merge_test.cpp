// Log and rings as one stream, and the command that shows it.
#include "tests/kemdctl/ctl.h"
#include "tests/trace_reader/written.h"

namespace {

class MergeTest : public ReaderTest {
  protected:
    // A whole run: messages and records of the start, then those that come later. The clock goes
    // back once, in the part that has this number.
    void Run(int jump) {
        Start(1);
        Note("### Start of initialization. ###");
        for (int part = 0; part < 4; ++part) {
            if (part == 2) EndStart();
            for (int i = 0; i < 50; ++i) {
                const int number = part * 50 + i;
                SetClock(kStart + number - (number >= jump ? 3600 : 0));
                // Now and then two records that differ in nothing.
                if (i % 10 == 3) Message("message " + std::to_string(number));
                if (i % 20 == 13) Message("message " + std::to_string(number));
                Trace(std::to_string(number) + std::string(i % 9 == 0 ? 1500 : 20, 'x'));
            }
            Message(std::to_string(part) + " is long" + std::string(1200, 'y'));
        }
    }
    // What was written and still stands in one of the files.
    Lines KeptIn(const Lines& ring, const Lines& log) const {
        Lines kept;
        for (const std::string& record : written) {
            if (std::find(ring.begin(), ring.end(), record) != ring.end() ||
                std::find(log.begin(), log.end(), record) != log.end())
                kept.push_back(record);
        }
        return kept;
    }
    void EndStart() {
        debug.InitDone();
        Note("### End of initialization. ###");
        Note("### Start of initialization. ###");
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
            for (RecordBlock run; merge.NextBlock(run); runs += run.count) {
                std::istringstream block{std::string(run.lines)};
                while (std::getline(block, text)) lines.push_back(text);
            }
        }
        return lines;
    }
    static inline uint64_t runs = 0;  // records that came with others
};

TEST_F(MergeTest, OneOrderAndEachMessageOnce) {
    for (const int jump : {10'000, 30, 75, 100, 130, 199}) {
        SCOPED_TRACE(jump);
        written.clear();
        SetClock(kStart);
        Run(jump);
        EXPECT_EQ("", Differ(written, ReadAll(false)));
        EXPECT_EQ("", Differ(written, ReadAll(true)));
    }
    EXPECT_GT(runs, 300u);
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
    const Lines ring = Whole(kRuntimeRing), log = Whole(kLog);
    const Lines expected = KeptIn(ring, log);
    ASSERT_TRUE(expected.front().ends_with("only in the log"));
    ASSERT_LT(expected.size(), written.size());
    EXPECT_EQ("", Differ(expected, Read(merge)));
}

TEST_F(MergeTest, CommandShowsWhatTheDirectoryInForceHas) {
    EXPECT_EQ(2, Ctl("trace").code);
    Run(10'000);
    std::string all;
    for (const std::string& record : written) all += record + "\n";
    const Result plain = Ctl("trace");
    EXPECT_EQ("", Difference(all, plain.out));
    EXPECT_EQ(0, plain.code);
    EXPECT_TRUE(InOrder(plain.err, {"log.kemd_i.gz: compressed ring, ", "log.kemd_a: ring, ",
                                    " writes it\n", "log.kemd: log, "}));
    const Result raw = Ctl("trace --raw " + kRuntimeRing);
    EXPECT_TRUE(InOrder(
        raw.out, {"# End of header.", "### Begin of RingBuffer. ###", "199", kTrailer, "_____\n"}));
    WriteFile("/tmp/foreign", "text\n");
    const Result bad = Ctl("trace /tmp/foreign /tmp/none " + kRuntimeRing);
    EXPECT_EQ(2, bad.code);
    EXPECT_PRED2(Contains, bad.err, "/tmp/none: No such file");
    EXPECT_PRED2(Contains, bad.out, "199");
    WriteFile("/tmp/empty", "");
    EXPECT_EQ(1, Ctl("trace /tmp/empty").code);
}

}  // namespace
