#include "trace/ring_buffer.h"

#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <sstream>

#include "tests/trace/trace_world.h"

namespace {

constexpr size_t kSize = size_t{1} << 20;  // factor 1, weight 1, pages of 4 KiB

// A ring file as docs/trace-files.md draws it, with the header that the real file has.
struct RingModel {
    std::string file;
    Lines header;
    size_t offset = 0;
    size_t restart = 0;

    explicit RingModel(const std::string& path, size_t size = kSize) {
        for (size_t line = 0; line < size / 1024; ++line) {
            file += Prefix() + std::string(1023 - Prefix().size(), '_') + "\n";
        }
        const std::string real = ReadFile(path);
        std::istringstream lines(real.substr(0, real.find(kTrailer)));
        for (std::string line; std::getline(lines, line);)
            Copy(Record(header.emplace_back(line.substr(Prefix().size()))));
        offset = (offset + 2048) & ~size_t{1023};
        Put("### Begin of RingBuffer. ###");
        restart = offset;
        Put("### Start of initialization. ###");
    }
    void Copy(const std::string& record) {
        file.replace(offset, record.size(), record);
        offset += record.size();
        file.replace(offset, kTrailer.size(), kTrailer);
    }
    void Put(const std::string& text) {
        if (offset + 16 + Record(text).size() > file.size()) {
            file.replace(offset, file.npos, file.size() - offset, '.');
            offset = 0;
            for (const std::string& line : header) Copy(Record(line));
            offset = restart;
        }
        Copy(Record(text));
    }
};

class RingTest : public TraceTest {
  protected:
    // The model of a run-time ring that was just opened; later headers show its end of start-up.
    RingModel StartRuntime() {
        EXPECT_TRUE(StartRing(debug));
        debug.InitDone();
        RingModel model(kRuntimeRing);
        for (std::string& line : model.header)
            if (line.starts_with("Application Init Done")) line.back() = '1';
        return model;
    }
    void Put(RingModel& model, const std::string& text) {
        debug.Trace(5, "%s", text.c_str());
        model.Put(text);
    }
    void ExpectOff() {
        EXPECT_EQ(0u, debug.TraceLevel() + debug.SavedTraceLevel());
        EXPECT_FALSE(debug.IsTraceOn());
        const std::string before = ReadFile(kLog);
        debug.Trace(0, "lost");
        debug.Message("kept");
        EXPECT_EQ(before + Record("kept"), ReadFile(kLog));
    }
};

TEST_F(RingTest, RecordThatJustFitsStaysAndOneByteMoreStartsACycle) {
    for (const size_t extra : {0, 1}) {
        SetClock(kStart);
        RingModel model = StartRuntime();
        for (int cycle = 1; cycle <= 3; ++cycle) {
            SetClock(kStart + cycle);  // a header that was not written again would show
            while (kSize - model.offset > 1000)
                Put(model, std::string(kSize - model.offset > 2000 ? 700 : 9, 'a'));
            Put(model, std::string(kSize - model.offset - Record("").size() - 16 + extra, 'b'));
            EXPECT_EQ(extra == 0, model.offset == kSize - 16);
            ASSERT_EQ("", Difference(model.file, ReadFile(kRuntimeRing)));
            Put(model, "next");
            ASSERT_EQ("", Difference(model.file, ReadFile(kRuntimeRing)));
        }
    }
}

TEST_F(RingTest, FollowersAreWokenOnceInTenMillisecondsAndNoByteChanges) {
    ASSERT_TRUE(StartRing(debug));
    const UniqueFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_LE(0, inotify_add_watch(watch.Get(), kStartupRing.c_str(), IN_MODIFY));
    for (const time_t second : {kStart + 1, kStart + 2, kStart}) {  // a clock may be set back
        SetClock(second);
        for (int i = 0; i < 3; ++i) {
            errno = E2BIG;
            debug.Trace(5, "a record");
            EXPECT_EQ(E2BIG, errno);
            std::array<char, 4096> events{};
            EXPECT_EQ(i == 0, read(watch.Get(), events.data(), events.size()) > 0);
        }
    }
    EXPECT_EQ(4 * kSize, fs::file_size(kStartupRing));
}

TEST_F(RingTest, LongRecordsAreWholeUpToATenthOfTheRing) {
    RingModel model = StartRuntime();
    setenv("OV_ARCH", "too late for the header", 1);
    for (const size_t length : {1023, 1024, 1025, 104856, 104857, 1000000}) {
        const std::string text(length, 'x');
        debug.Trace(1, "\n%s\n", text.c_str());  // its line feed counts as a character
        model.Put(length < 104857 ? text
                                  : text.substr(0, 1024) +
                                        "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!");
        Put(model, "between");
    }
    debug.Message("%d%s", 1, std::string(5000, 'm').c_str());
    model.Put("1" + std::string(5000, 'm'));
    EXPECT_EQ(Record("1" + std::string(1023, 'm')), ReadFile(kLog));
    for (int i = 0; i < 25; ++i)
        Put(model, std::string(104857, 'y'));  // they wait while a header is written
    EXPECT_EQ("", Difference(model.file, ReadFile(kRuntimeRing)));
}

TEST_F(RingTest, InitDoneCompressesTheStartupFileAndOpensTheRuntimeFile) {
    ASSERT_TRUE(StartRing(debug));
    RingModel startup(kStartupRing, 4 * kSize);
    SetClock(kStart + 5);
    Put(startup, "first");
    std::string program(4096, '%');  // long lines stay whole
    std::array<char*, 1> arguments = {program.data()};
    debug.SetCommandLine(1, arguments.data());
    const Lines commandLine = {"kemd Command Line Options:", "argv[0] = \"" + program + "\""};
    for (const std::string& line : commandLine) startup.Put(line);
    EXPECT_EQ("", Difference(startup.file, ReadFile(kStartupRing)));
    debug.InitDone();
    startup.Put("### End of initialization. ###");
    EXPECT_FALSE(fs::exists(kStartupRing));
    EXPECT_EQ(0, system(("gzip -d " + kStartupRing).c_str()));
    EXPECT_EQ("", Difference(startup.file, ReadFile(kStartupRing)));

    RingModel model(kRuntimeRing);
    EXPECT_TRUE(model.file.starts_with(Records(commandLine)));
    debug.InitDone();  // a second one changes nothing
    Put(model, "second");
    EXPECT_EQ("", Difference(model.file, ReadFile(kRuntimeRing)));
}

TEST_F(RingTest, SizeFollowsFactorAndWeight) {
    // Factor, weight, the module's own weight; MiB of the start-up file: 0 is none, -1 refused.
    const std::tuple<Text, Text, Text, int64_t> rows[] = {
        {"1", "1", nullptr, 4},   {"5", "1", nullptr, 8}, {"1", "1", "3", 12},
        {"1", "0", nullptr, 0},   {"0", "1", nullptr, 0}, {"1", "512", nullptr, -1},
        {"2", "-1", nullptr, -1}, {"1", "1", "", 0}};
    Configure("FileDebugLevel=5\nMemoryTracesFlag=0");
    for (const auto& [factor, weight, own, size] : rows) {
        SCOPED_TRACE(std::string(factor) + " x " + weight);
        setenv("TraceFileLimit", factor, 1);
        setenv("OV_LOG_RINGBUF_WEIGHT", weight, 1);
        SetOrUnset("OV_LOG_RINGBUF_WEIGHT_KEMD", own);
        EXPECT_EQ(size >= 0, debug.Init("kemd"));
        std::error_code none;
        EXPECT_EQ(size > 0 ? size << 20 : -1,
                  static_cast<int64_t>(fs::file_size(kStartupRing, none)));
        EXPECT_EQ(size < 0, ReadFile(kLog).starts_with(Prefix() + "### InitRingBuffer(): mmap of " +
                                                       kStartupRing + " failed (errno="));
        if (size <= 0) ExpectOff();
        fs::remove(kStartupRing);
    }
}

TEST_F(RingTest, FileThatCannotBeMadeSwitchesTracingOff) {
    (void)signal(SIGXFSZ, SIG_IGN);
    for (const bool isFull : {false, true}) {
        for (const std::string& path : {kStartupRing, kRuntimeRing}) {
            SCOPED_TRACE(path);
            TraceTest::SetUp();
            EXPECT_TRUE(isFull || mkfifo(path.c_str(), 0600) == 0);
            EXPECT_TRUE(path == kStartupRing || StartRing(debug));
            rlimit limit{};
            getrlimit(RLIMIT_FSIZE, &limit);
            const rlimit small = {isFull ? kSize - 1 : limit.rlim_cur, limit.rlim_max};
            setrlimit(RLIMIT_FSIZE, &small);
            EXPECT_TRUE(path == kRuntimeRing || !StartRing(debug));
            debug.InitDone();
            setrlimit(RLIMIT_FSIZE, &limit);
            EXPECT_EQ(
                Record("### InitRingBuffer(): " +
                       (isFull ? "(2) write m_InternalDebugBuffer to " + path + " failed ###"
                               : "open of " + path + " failed (errno=22; Invalid argument) ###")),
                ReadFile(kLog));
            EXPECT_TRUE(!isFull || fs::file_size(path) == 0);
            ExpectOff();
        }
    }
}

}  // namespace
