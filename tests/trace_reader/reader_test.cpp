// One file at a time: every wrap position and every edge of both layouts.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "tests/trace_reader/written.h"

// The program's own reads fail within this range.
static off_t failsFrom = 0, failsTo = 0;
extern "C" ssize_t pread(int fd, void* to, size_t length, off_t offset) {
    if (offset < failsTo && offset + static_cast<off_t>(length) > failsFrom) {
        if (offset >= failsFrom) return errno = EIO, -1;
        length = static_cast<size_t>(failsFrom - offset);
    }
    return syscall(SYS_pread64, fd, to, length, offset);
}

namespace {

constexpr const char* kNotCertain = "the order of its records is not certain";

std::string HeadOf(const std::string& record) {
    return record.substr(0, record.find('\n'));
}

TEST_F(ReaderTest, LogAtEveryWrapPosition) {
    // Messages of one second, one of several, and a limit that every message passes.
    for (const auto& [limit, each] : {std::pair<size_t, int>{1745, 1}, {1745, 9}, {10, 1}}) {
        StartAgain(0, limit);
        for (int i = 0; i < 400; ++i) {
            SetClock(kStart + i / each);
            Message(Padded(i));
            if (i == 70) debug.InitDone();
            ASSERT_EQ("", Differ(Whole(kLog), Read(OpenSource(kLog)))) << i;
        }
    }
}

TEST_F(ReaderTest, LogWhoseClockGoesBackLosesNothing) {
    Start(0, 3000);
    int uncertain = 0, wrong = 0;
    for (int i = 0; i < 400; ++i) {
        SetClock(kStart + i - (i < 100 ? 0 : 60) - (i < 300 ? 0 : 5));
        Message(Padded(i));
        if (i == 20) debug.InitDone();
        OpenSource source(kLog);
        const Lines found = Read(source), whole = Whole(kLog);
        if (source.Facts().isCertain) {
            wrong += whole == found ? 0 : 1;
            continue;
        }
        ++uncertain;
        EXPECT_PRED2(Contains, source.Problem(), kNotCertain);
        // A record before a fragment has that as a further line.
        const auto isFound = [&found](const std::string& line) {
            return std::find(found.begin(), found.end(), line) != found.end();
        };
        EXPECT_GE(2, std::ssize(whole) - std::count_if(whole.begin(), whole.end(), isFound)) << i;
    }
    // As long as records from before the change are among the older ones.
    EXPECT_LT(0, uncertain);
    EXPECT_GT(110, uncertain);
    // Nothing tells where the older records begin when none of them was cut.
    EXPECT_GE(2, wrong);
}

TEST_F(ReaderTest, LogOfTextsWithSeveralLinesKeepsItsOrder) {
    for (const int each : {1, 3, 7}) {
        StartAgain(0, 1745);
        for (int i = 0; i < 300; ++i) {
            SetClock(kStart + i);
            Message(Padded(i) + (i % each == 0 ? "\nand " + std::to_string(i) : ""));
            if (i == 70) debug.InitDone();
            OpenSource source(kLog);
            Lines found = Read(source), whole = Whole(kLog);
            EXPECT_TRUE(found == whole || source.Facts().hasUncertainLines) << i;
            std::transform(found.begin(), found.end(), found.begin(), HeadOf);
            std::transform(whole.begin(), whole.end(), whole.begin(), HeadOf);
            ASSERT_EQ("", Differ(whole, found)) << i;
        }
    }
}

TEST_F(ReaderTest, TextsThatLookLikeAHeaderOrATrailerAreShown) {
    Start(0, 20'000);
    for (const char* text : {"first", "Orvana Environment:", "second\n## TRACE-END ##", "third"})
        Message(text);
    EXPECT_EQ("", Differ(written, Read(OpenSource(kLog))));
    StartRing();
    for (int i = 0; i < 3000; ++i) {
        SetClock(kStart + i / 2);
        Trace(Padded(i) + std::string(500, 'x'));
        if (i % 7 == 3) Trace("x\n" + kTrailer + kTrailer + "more");
        if (i % 7 != 4 || (i > 300 && i < 2800)) continue;
        ASSERT_EQ("", Differ(Whole(), Read(OpenSource()))) << i;
    }
}

// Each cycle ends once with a record that just fits and once with one that is a byte longer.
TEST_F(ReaderTest, RingThroughItsCyclesAndAtTheirEnds) {
    for (const time_t back : {0, 3600}) {  // the clock may be set back
        StartRing();
        const std::string file = ReadFile(kRuntimeRing), first = "### Start of initialization. ###";
        const auto restart = static_cast<int>(file.find(Record(first)));
        int end = restart + static_cast<int>(Record(first).size()), ends = 0;
        EXPECT_EQ("", Differ(written, Read(OpenSource())));
        for (int i = 0; i < 6000; ++i) {
            SetClock(kStart + i / 3 - (i > 2500 ? back : 0));
            std::string text = std::to_string(i) + std::string(i % 50 == 0 ? 5000 : 700, 'a') +
                               (i % 20 == 0 ? "\nmore\n\nlines" : "");
            const int room = static_cast<int>(file.size() - 16 - Record("").size()) - end;
            const bool isEnd = room > 0 && room < 6000;
            if (isEnd) text = std::string(static_cast<size_t>(room + ends++ % 2), 'b');
            Trace(text);
            const auto size = static_cast<int>(text.size());
            end = (size > room ? restart : end) + size + static_cast<int>(Record("").size());
            if (i % 197 > 1 && !isEnd && room > 0) continue;
            OpenSource source;
            const Lines found = Read(source);
            ASSERT_EQ("", Differ(Whole(), found)) << i;
            EXPECT_EQ(found.size(), source.Facts().records);
            EXPECT_EQ("", source.Facts().problem);
        }
        EXPECT_LT(3, ends);
    }
}

TEST_F(ReaderTest, RingWhoseHeaderHasGrownOverItsFirstRecord) {
    StartRing();
    std::string word(100, 'a');
    std::vector<char*> arguments(60, word.data());
    debug.SetCommandLine(static_cast<int>(arguments.size()), arguments.data());
    written.clear();
    for (int i = 0; i < 6000; i += 50) {
        TraceMany(i, i + 50);
        if (i < 2500) continue;
        OpenSource source;
        // The first record of a cycle stands after a fragment of the header, on the same line.
        const Lines whole = Whole(), found = Read(source);
        EXPECT_TRUE(std::includes(found.begin(), found.end(), whole.begin(), whole.end()));
        ASSERT_EQ(whole.size() + 1, found.size());
        EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
        EXPECT_PRED2(Contains, source.Problem(), "damaged");
    }
}

// Their forms are tested with the writer.
TEST_F(ReaderTest, PrefixesWithImpossibleTimesAreNone) {
    const std::string time = "2026-11-15 20:04:51.123 [D82A0740] ";
    EXPECT_EQ(1794773091123, PrefixParser().ParseHead(time.data(), time.size()).time);
    for (const char* bad :
         {"2026-11-31 20:04:51.123 [D82A0740] ", "2026-11-15 24:04:51.123 [D82A0740] ",
          "2026-11-15 20:04:51.12x [D82A0740] ", "2026-11-15 20:04:51.123 [d82A0740] "})
        EXPECT_FALSE(HasHead(bad)) << bad;
}

TEST_F(ReaderTest, DamagedAndForeignFiles) {
    StartRing();
    TraceMany(0, 3000);
    const std::string ring = ReadFile(kRuntimeRing);
    const size_t begin = ring.find(" kemd          ### Begin of"), newest = ring.rfind(kTrailer);
    const auto expect = [this](const std::string& file, size_t least, const std::string& problem) {
        WriteFile("/tmp/bad", file);
        OpenSource source("/tmp/bad");
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
    expect(file.substr(0, newest - 100'000), 500, kNotCertain);
    file.replace(begin - 20, 40, 40, '\0');
    expect(file, 1900, "the record that begins the ring is damaged");
    file.replace(0, 100'000, 100'000, '\0');
    expect(file, 1500, "damaged");
    file = ring;
    file.replace(newest, 16, std::string(16, 'x'));  // as of a writer that was killed
    expect(file, 1500, kNotCertain);
    expect(std::string(300'000, '\0'), 0, "zeros only");
    expect("#!/bin/sh\nexit 0\n", 0, "not a trace file");
    expect("", 0, "");
    Note("1");
    Note("2");
    expect("junk\n" + Record("1") + Record("2"), 2, "");
    // What cannot be read is left out and reported.
    failsFrom = 500 * 1024, failsTo = failsFrom + 8192;
    expect(ring, Whole().size() - 30, "cannot be read at byte 512000: Input/output error");
    failsTo = 0;
}

TEST_F(ReaderTest, CompressedFileThatIsCutOrTooLarge) {
    Start(1);
    for (int i = 0; i < 500; ++i) Trace(Padded(i * 1001) + std::to_string(i * 7919));
    debug.InitDone();
    const std::string packed = ReadFile(kStartupRing + ".gz");
    WriteFile("/tmp/cut.gz", packed.substr(0, packed.size() * 2 / 3));
    OpenSource cut("/tmp/cut.gz");
    EXPECT_GT(Read(cut).size(), 50u);
    EXPECT_PRED2(Contains, cut.Problem(), "compressed data is damaged or cut");
    EXPECT_FALSE(cut.IsGood());
    WriteFile("/tmp/bomb", Record("1") + std::string(size_t{64} << 20, '\0'));
    ASSERT_EQ(0, system("gzip -f /tmp/bomb"));
    EXPECT_LE(OpenSource("/tmp/bomb.gz").Facts().size, size_t{8} << 20);  // of 64 KiB packed
}

TEST_F(ReaderTest, SeekTimeFindsAllRecordsWithoutReadingMuchElse) {
    Start(4);
    debug.InitDone();
    // A steady clock, and one that is set back twice.
    for (const time_t back : {0, 3600}) {
        for (int i = 0; i < 50'000; ++i) {
            SetClock(kStart + i - (i > 30'000 ? back : 0) - (i > 42'000 ? back / 180 : 0));
            Trace(Padded(i) + std::string(60, 'x'));
        }
        const Lines all = Read(OpenSource());
        for (const int second : {0, 20'000, 26'000, 29'500, 38'398, 49'999, 60'000}) {
            SetClock(kStart + second);
            OpenSource source;
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
