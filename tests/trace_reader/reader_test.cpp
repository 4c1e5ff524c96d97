// One file at a time: every wrap position and every edge of both layouts.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "tests/trace_reader/written.h"
#include "trace_reader/trace_source.h"

// From this place to that the program's own reads fail.
static off_t failsFrom = 0, failsTo = 0;
extern "C" ssize_t pread(int fd, void* to, size_t length, off_t offset) {
    if (offset < failsTo && offset + static_cast<off_t>(length) > failsFrom) {
        if (offset >= failsFrom) return errno = EIO, -1;
        length = static_cast<size_t>(failsFrom - offset);
    }
    return syscall(SYS_pread64, fd, to, length, offset);
}

namespace {

std::string Padded(int number) {
    return std::to_string(number) + std::string(static_cast<size_t>(number * 7 % 41), '-');
}

TEST_F(ReaderTest, LogAtEveryWrapPosition) {
    // Messages of one second, one of several, and a limit that every message passes.
    for (const auto& [limit, each] : {std::pair<size_t, int>{1745, 1}, {1745, 9}, {10, 1}}) {
        SCOPED_TRACE(std::to_string(limit) + " bytes, " + std::to_string(each));
        written.clear();
        SetClock(kStart);
        Start(0, limit);
        for (int i = 0; i < 400; ++i) {
            SetClock(kStart + i / each);
            Message(Padded(i));
            if (i == 70) debug.InitDone();
            ASSERT_EQ("", Differ(Whole(kLog), ReadPath(kLog))) << i;
        }
    }
}

TEST_F(ReaderTest, LogWhoseClockGoesBackLosesNothing) {
    Start(0, 3000);
    for (int i = 0; i < 20; ++i) Message(Padded(i));
    debug.InitDone();
    int uncertain = 0, wrong = 0;
    for (int i = 20; i < 400; ++i) {
        SetClock(kStart + i - (i < 100 ? 0 : 60) - (i < 300 ? 0 : 5));
        Message(Padded(i));
        TraceSource source(kLog, 0);
        ASSERT_TRUE(source.Open());
        Lines found = Read(source), whole = Whole(kLog);
        if (source.Facts().isCertain) {
            wrong += whole == found ? 0 : 1;
            continue;
        }
        ++uncertain;
        EXPECT_PRED2(Contains, source.Problem(), "the order of its records is not certain");
        std::erase_if(found, [&whole](const std::string& line) {
            return std::find(whole.begin(), whole.end(), line) == whole.end();
        });
        // A record before a fragment has that as a further line.
        EXPECT_LE(whole.size(), found.size() + 2) << i;
    }
    // As long as records from before the change are among the older ones.
    EXPECT_LT(0, uncertain);
    EXPECT_GT(110, uncertain);
    // Nothing tells where the older records begin when none of them was cut.
    EXPECT_GE(2, wrong);
}

TEST_F(ReaderTest, LogOfTextsWithSeveralLinesKeepsItsOrder) {
    const auto headOf = [](const std::string& record) {
        return record.substr(0, record.find('\n'));
    };
    for (const int each : {1, 3, 7}) {
        SCOPED_TRACE(each);
        written.clear();
        SetClock(kStart);
        Start(0, 1745);
        for (int i = 0; i < 300; ++i) {
            SetClock(kStart + i);
            Message(Padded(i) + (i % each == 0 ? "\nand " + std::to_string(i) : ""));
            if (i == 70) debug.InitDone();
            TraceSource source(kLog, 0);
            ASSERT_TRUE(source.Open());
            Lines found = Read(source), whole = Whole(kLog);
            EXPECT_TRUE(found == whole || source.Facts().hasUncertainLines) << i;
            std::transform(found.begin(), found.end(), found.begin(), headOf);
            std::transform(whole.begin(), whole.end(), whole.begin(), headOf);
            ASSERT_EQ("", Differ(whole, found)) << i;
        }
    }
}

TEST_F(ReaderTest, MessagesThatLookLikeAHeaderAreShown) {
    Start(0, 20'000);
    for (const char* text :
         {"Orvana Environment:", "A=B", "plain", "Orvana Environment:", "plain"}) {
        Message(text);
    }
    EXPECT_EQ("", Differ({written.begin() + 2, written.end()}, ReadPath(kLog)));
    written.clear();
    Start(0, 20'000);
    for (const char* text : {"first", "Orvana Environment:", "second\n## TRACE-END ##", "third"})
        Message(text);
    EXPECT_EQ("", Differ(written, ReadPath(kLog)));
}

TEST_F(ReaderTest, TrailerInTexts) {
    const std::string trailer(kTrailer);
    for (const int count : {300, 3000}) {
        StartRing();
        for (int i = 0; i < count; ++i) {
            SetClock(kStart + i / 2);
            Trace(Padded(i) + std::string(500, 'x'));
            if (i % 7 == 3) Trace("x\n" + trailer + trailer + "more");
            if (i % 7 != 4 || i < count - 200) continue;
            ASSERT_EQ("", Differ(Whole(kRuntimeRing), ReadPath(kRuntimeRing))) << i;
        }
    }
}

TEST_F(ReaderTest, WriterThatDiedWithinARecordAfterATextWithATrailer) {
    for (const int count : {500, 3000}) {
        StartRing();
        for (int i = 0; i < count; ++i) {
            SetClock(kStart + i);
            Trace(Padded(i) + std::string(500, 'x') +
                  (i == count - 200 ? "\n## TRACE-END ##" : ""));
        }
        std::string file = ReadFile(kRuntimeRing);
        SetClock(kStart + count);
        file.replace(file.rfind("x\n" + kTrailer) + 2, 40, Record("cut").substr(0, 40));
        WriteFile("/tmp/dead", file);
        TraceSource source("/tmp/dead", 0);
        ASSERT_TRUE(source.Open());
        Lines found = Read(source), whole = Whole("/tmp/dead");
        EXPECT_PRED2(Contains, source.Problem(), "the order of its records is not certain");
        for (std::string& line : found) line = line.substr(0, line.find('\n'));
        for (std::string& line : whole) line = line.substr(0, line.find('\n'));
        std::sort(found.begin(), found.end());
        EXPECT_TRUE(std::includes(found.begin(), found.end(), whole.begin(), whole.end()));
        EXPECT_GE(whole.size() + 1, found.size());
    }
}

TEST_F(ReaderTest, RingWhoseOlderCycleHasLaterTimes) {
    StartRing();
    for (int i = 0; i < 6000; ++i) {
        SetClock(kStart + i - (i > 2500 ? 3600 : 0));
        Trace(Padded(i) + std::string(500, 'x'));
        if (i < 2400 || i % 100 != 0) continue;
        TraceSource source(kRuntimeRing, 0);
        ASSERT_TRUE(source.Open());
        EXPECT_EQ("", Differ(Whole(kRuntimeRing), Read(source))) << i;
        EXPECT_EQ("", source.Facts().problem) << i;
    }
}

TEST_F(ReaderTest, RingWhoseHeaderHasGrownOverItsFirstRecord) {
    Start(1);
    debug.InitDone();
    GrowHeader();
    written.clear();
    for (int i = 0; i < 6000; ++i) {
        SetClock(kStart + i);
        Trace(Padded(i) + std::string(500, 'x'));
        if (i < 2500 || i % 50 != 0) continue;
        TraceSource source(kRuntimeRing, 0);
        ASSERT_TRUE(source.Open());
        // The first record of a cycle stands after a fragment of the header, on the same line.
        const Lines whole = Whole(kRuntimeRing), found = Read(source);
        Lines more;
        std::set_difference(found.begin(), found.end(), whole.begin(), whole.end(),
                            std::back_inserter(more));
        ASSERT_EQ(whole.size() + 1, found.size());
        ASSERT_EQ(1u, more.size());
        EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
        EXPECT_PRED2(Contains, source.Problem(), "damaged");
    }
}

TEST_F(ReaderTest, RingThroughItsCycles) {
    StartRing();
    EXPECT_EQ(written, ReadPath(kRuntimeRing));
    for (int i = 0; i < 4000; ++i) {
        SetClock(kStart + i / 3);
        Trace(std::to_string(i) + std::string(i % 50 == 0 ? 5000 : 700, 'a') +
              (i % 20 == 0 ? "\nmore\n\nlines" : ""));
        if (i % 197 < 2) {
            ASSERT_EQ("", Differ(Whole(kRuntimeRing), ReadPath(kRuntimeRing))) << i;
        }
    }
    TraceSource source(kRuntimeRing, 0);
    ASSERT_TRUE(source.Open());
    const size_t count = Read(source).size();
    EXPECT_EQ(count, source.Facts().records);
    EXPECT_GT(source.Facts().overwritten, 0u);
    EXPECT_EQ("", source.Facts().problem);
}

TEST_F(ReaderTest, RecordThatJustFitsAndOneByteMore) {
    constexpr size_t kSize = size_t{1} << 20;
    for (const size_t extra : {0, 1}) {
        StartRing();
        for (int i = 0; i < 3; ++i) {
            size_t trailer = 0;
            for (int records = 0; kSize - trailer > 4000; ++records) {
                SetClock(kStart + static_cast<time_t>(written.size()));
                Trace(std::to_string(written.size()) + std::string(3000, 'a'));
                if (records < 300) continue;  // far from the end
                const std::string file = ReadFile(kRuntimeRing);
                trailer = file.find(kTrailer, file.find("### Begin of RingBuffer"));
            }
            Trace(std::string(kSize - trailer - Record("").size() - 16 + extra, 'b'));
            ASSERT_EQ("", Differ(Whole(kRuntimeRing), ReadPath(kRuntimeRing)));
            Trace("next");
            ASSERT_EQ("", Differ(Whole(kRuntimeRing), ReadPath(kRuntimeRing)));
        }
    }
}

TEST_F(ReaderTest, PrefixParts) {
    PrefixParser parser;
    const std::string time = "2026-11-15 20:04:51.123 [D82A0740] ";
    const auto head = parser.ParseHead(time.data(), time.size());
    EXPECT_TRUE(head.isThere);
    EXPECT_EQ(1794773091123, head.time);
    EXPECT_EQ(0xD82A0740U, head.thread);
    EXPECT_EQ("2026-11-15 20:04:51.123", std::string(FormatTime(head.time).data()));
    struct Row {
        std::string rest, tag, text;
        int64_t memory = -1;
    };
    for (const Row& row : {Row{"kemd          text", "kemd", "text"},
                           {"    3188 KB !kemd          text", "kemd", "text", 3188},
                           {"123456789 KB !a b           \n x", "a b", "\n x", 123456789},
                           {"              text", "", "text"},
                           {"exactly13byte text", "exactly13byte", "text"},
                           {"longer-than-thirteen text", "longer-than-thirteen", "text"},
                           {std::string(93, 't') + "text", std::string(93, 't'), "text"},
                           {"kemd          ", "kemd", ""},
                           {"", "", ""}}) {
        TraceRecord record;
        const std::string line = time + row.rest;
        record.line = line;
        parser.ParseRest(record);
        EXPECT_EQ(row.tag, record.tag) << row.rest;
        EXPECT_EQ(row.text, record.text) << row.rest;
        EXPECT_EQ(row.memory, record.residentKb) << row.rest;
    }
    const std::string unknown = "yyyy-mm-dd hh:mm:ss.mmm [D82A0740] ";
    EXPECT_EQ(1794773091123, parser.ParseHead(unknown.data(), unknown.size()).time);
    for (const char* bad :
         {"2026-11-31 20:04:51.123 [D82A0740] ", "2026-11-15 24:04:51.123 [D82A0740] ",
          "2026-11-15 20:04:51.12x [D82A0740] ", "2026-11-15 20:04:51.123 [d82A0740] "})
        EXPECT_FALSE(parser.ParseHead(bad, PrefixParser::kHeadLength).isThere) << bad;
}

TEST_F(ReaderTest, DamagedAndForeignFiles) {
    Start(1);
    debug.InitDone();
    for (int i = 0; i < 3000; ++i) {
        SetClock(kStart + i);
        Trace(Padded(i) + std::string(400, 'x'));
    }
    const std::string ring = ReadFile(kRuntimeRing);
    const size_t begin = ring.find(" kemd          ### Begin of"), newest = ring.rfind(kTrailer);
    const auto expect = [this](const std::string& file, size_t least, const std::string& problem) {
        WriteFile("/tmp/bad", file);
        TraceSource source("/tmp/bad", 0);
        ASSERT_TRUE(source.Open());
        Lines found = Read(source);
        const Lines whole = Whole("/tmp/bad");
        EXPECT_LE(least, found.size());
        // What the damage cut, and nothing else.
        const auto isCut = [&whole](const std::string& line) {
            return !std::binary_search(whole.begin(), whole.end(), line);
        };
        EXPECT_LE(std::erase_if(found, isCut), 1u);
        EXPECT_TRUE(!source.Facts().isCertain || std::is_sorted(found.begin(), found.end()));
        EXPECT_PRED2(Contains, source.Problem(), problem);
    };
    std::string file = ring;
    expect(file.substr(0, newest + 100'000), 500, "");
    expect(file.substr(0, newest - 100'000), 500, "not certain");
    file.replace(begin - 20, 40, 40, '\0');
    expect(file, 1900, "the record that begins the ring is damaged");
    file.replace(0, 100'000, 100'000, '\0');
    expect(file, 1500, "damaged");
    file = ring;
    file.replace(newest, 16, std::string(16, 'x'));
    expect(file, 1500, "not certain");
    expect(std::string(300'000, '\0'), 0, "not a trace file");
    expect("#!/bin/sh\nexit 0\n", 0, "not a trace file");
    expect("", 0, "");
    Note("1");
    Note("2");
    expect("junk\n" + Record("1") + Record("2"), 2, "");
    TraceSource none("/tmp", 0);
    EXPECT_FALSE(none.Open());
    EXPECT_EQ("not a regular file", none.Facts().error);
}

TEST_F(ReaderTest, WhatCannotBeReadIsSkippedAndReported) {
    StartRing();
    for (int i = 0; i < 3000; ++i) {
        SetClock(kStart + i);
        Trace(Padded(i) + std::string(400, 'x'));
    }
    const Lines whole = Whole(kRuntimeRing);
    failsFrom = 500 * 1024, failsTo = failsFrom + 8192;
    TraceSource source(kRuntimeRing, 0);
    ASSERT_TRUE(source.Open());
    Lines found = Read(source);
    failsTo = 0;
    EXPECT_EQ("cannot be read at byte 512000: Input/output error", source.Facts().error);
    EXPECT_FALSE(source.IsGood());
    EXPECT_LE(std::erase_if(found,
                            [&whole](const std::string& line) {
                                return !std::binary_search(whole.begin(), whole.end(), line);
                            }),
              1u);
    EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
    EXPECT_LT(whole.size() - 30, found.size());
}

TEST_F(ReaderTest, CompressedFileThatIsCutOrTooLarge) {
    Start(1);
    for (int i = 0; i < 500; ++i) Trace(Padded(i * 1001) + std::to_string(i * 7919));
    debug.InitDone();
    const std::string packed = ReadFile(kStartupRing + ".gz");
    WriteFile("/tmp/cut.gz", packed.substr(0, packed.size() * 2 / 3));
    TraceSource cut("/tmp/cut.gz", 0);
    ASSERT_TRUE(cut.Open());
    EXPECT_GT(Read(cut).size(), 50u);
    EXPECT_PRED2(Contains, cut.Problem(), "compressed data is damaged or cut");
    EXPECT_FALSE(cut.IsGood());
    for (const std::string& start : {std::string(), Record("1")}) {
        WriteFile("/tmp/bomb", start + std::string(size_t{64} << 20, '\0'));
        ASSERT_EQ(0, system("gzip -f /tmp/bomb"));
        TraceSource bomb("/tmp/bomb.gz", 0);
        ASSERT_TRUE(bomb.Open());
        EXPECT_LE(bomb.Facts().size, size_t{8} << 20);  // of 64 KiB packed
    }
}

TEST_F(ReaderTest, SeekTimeFindsAllRecordsWithoutReadingMuchElse) {
    Start(4);
    debug.InitDone();
    // A steady clock, and one that is set back twice.
    for (const time_t back : {0, 3600}) {
        SCOPED_TRACE(back);
        for (int i = 0; i < 50'000; ++i) {
            SetClock(kStart + i - (i > 30'000 ? back : 0) - (i > 42'000 ? back / 180 : 0));
            Trace(Padded(i) + std::string(60, 'x'));
        }
        const Lines all = ReadPath(kRuntimeRing);
        for (const int second : {0, 20'000, 26'000, 29'500, 38'398, 49'999, 60'000}) {
            SetClock(kStart + second);
            TraceSource source(kRuntimeRing, 0);
            ASSERT_TRUE(source.Open());
            source.Select((kStart + second) * int64_t{1000}, INT64_MAX);
            const Lines found = Read(source);
            const auto isWanted = [](const std::string& line) { return line >= Prefix(); };
            const auto wanted = std::count_if(all.begin(), all.end(), isWanted);
            EXPECT_EQ(wanted, std::count_if(found.begin(), found.end(), isWanted)) << second;
            EXPECT_TRUE(back > 0 || std::ssize(found) <= wanted + 7000) << second;
        }
    }
}

}  // namespace
