#include "trace/ring_buffer.h"

#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <new>
#include <utility>

#include "tests/trace/trace_world.h"

static size_t memoryLimit = SIZE_MAX;

// The program's own definition takes the place of the C++ library's.
void* operator new[](size_t size, const std::nothrow_t& /*unused*/) noexcept try {
    return size < memoryLimit ? operator new[](size) : nullptr;
} catch (const std::bad_alloc&) {
    return nullptr;
}

namespace {

constexpr size_t kSize = size_t{1} << 20;  // factor 1, weight 1, pages of 4 KiB

// A ring file as docs/trace-files.md draws it.
struct RingModel {
    std::string file;
    Lines header;
    size_t offset = 0;
    size_t restart = 0;

    RingModel(size_t size, const Lines& texts) : header(texts) {
        for (size_t line = 0; line < size / 1024; ++line) {
            file += Prefix() + std::string(1023 - Prefix().size(), '_') + "\n";
        }
        for (const std::string& text : header) Copy(Record(text));
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

// Sets a limit of the process and returns what it was.
rlim_t SetLimit(__rlimit_resource_t resource, rlim_t value) {
    rlimit limit{};
    getrlimit(resource, &limit);
    const rlim_t before = std::exchange(limit.rlim_cur, value);
    EXPECT_EQ(0, setrlimit(resource, &limit));
    return before;
}

class RingTest : public TraceTest {
  protected:
    // The header of a ring file that StartRing opened.
    static Lines Header(const std::string& path, Text initDone, const Texts& set = {}) {
        return HeaderTexts(set, {},
                           {{"Application Init Done", initDone},
                            {"Ring Buffer FD", std::to_string(DescriptorOf(path))},
                            {"Ring Buffer Size", path == kStartupRing ? "4194304" : "1048576"}});
    }
    // The model of a run-time ring that was just opened; later headers show its end of start-up.
    RingModel StartRuntime() {
        EXPECT_TRUE(StartRing(debug));
        debug.InitDone();
        RingModel model(kSize, Header(kRuntimeRing, "0"));
        model.header = Header(kRuntimeRing, "1");
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
    const auto isWoken = [&watch] {
        std::array<char, 4096> events{};
        return read(watch.Get(), events.data(), events.size()) > 0;
    };
    for (const time_t second : {kStart + 1, kStart + 2, kStart}) {  // a clock may be set back
        SetClock(second);
        for (int i = 0; i < 3; ++i) {
            errno = E2BIG;
            debug.Trace(5, "a record");
            EXPECT_EQ(E2BIG, errno);
            EXPECT_EQ(i == 0, isWoken());
        }
    }
    EXPECT_EQ(4 * kSize, fs::file_size(kStartupRing));
    debug.Trace(6, "above the level");
    EXPECT_FALSE(isWoken());
}

TEST_F(RingTest, LongRecordsAreWholeUpToATenthOfTheRingAndWhileMemoryLasts) {
    RingModel model = StartRuntime();
    setenv("OV_ARCH", "too late for the header", 1);
    for (const size_t length : {1023, 1024, 1025, 5000, 104856, 104857, 1000000}) {
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
    memoryLimit = 5000;
    debug.Trace(1, "%s", std::string(5000, 'x').c_str());
    memoryLimit = SIZE_MAX;
    model.Put(std::string(1024, 'x') + "\n## ERROR: No memory: Output Truncated!");
    for (int i = 0; i < 25; ++i)
        Put(model, std::string(104857, 'y'));  // they wait while a header is written
    EXPECT_EQ("", Difference(model.file, ReadFile(kRuntimeRing)));
}

// With one descriptor left no pipe to gzip can be made.
TEST_F(RingTest, GzipThatCannotBeStartedLeavesTheFile) {
    ASSERT_TRUE(StartRing(debug));
    const auto last = static_cast<rlim_t>(UniqueFd(dup(STDIN_FILENO)).Get());
    const rlim_t limit = SetLimit(RLIMIT_NOFILE, last + 1);
    debug.InitDone();
    SetLimit(RLIMIT_NOFILE, limit);
    EXPECT_EQ(Record("### gziping of startup log file failed -> it doesn't matter ###"),
              ReadFile(kLog));
    EXPECT_TRUE(RingText(kStartupRing).ends_with(" ### End of initialization. ###\n"));
    EXPECT_TRUE(debug.IsTraceOn() && fs::exists(kRuntimeRing));
}

TEST_F(RingTest, InitDoneCompressesTheStartupFileAndOpensTheRuntimeFile) {
    const Texts repository = {{"OV_REPO", std::string(4096, '%')}};  // long lines stay whole
    setenv("OV_REPO", repository.at("OV_REPO").c_str(), 1);
    ASSERT_TRUE(StartRing(debug));
    EXPECT_FALSE(fs::exists(kRuntimeRing));
    RingModel startup(4 * kSize, Header(kStartupRing, "0", repository));
    SetClock(kStart + 5);
    Put(startup, "first");
    debug.Trace(6, "above the level");
    debug.Trace(1, nullptr);
    std::string program = "/usr/sbin/kemd";
    std::array<char*, 1> arguments = {program.data()};
    debug.SetCommandLine(1, arguments.data());
    Lines header = {"kemd Command Line Options:", "argv[0] = \"/usr/sbin/kemd\""};
    EXPECT_EQ(Records(header), ReadFile(kLog));
    for (const std::string& line : header) startup.Put(line);
    EXPECT_EQ("", Difference(startup.file, ReadFile(kStartupRing)));
    debug.InitDone();
    startup.Put("### End of initialization. ###");
    EXPECT_FALSE(fs::exists(kStartupRing));
    EXPECT_EQ(0, system(("gzip -d " + kStartupRing).c_str()));
    EXPECT_EQ("", Difference(startup.file, ReadFile(kStartupRing)));

    const Lines rest = Header(kRuntimeRing, "0", repository);
    header.insert(header.end(), rest.begin(), rest.end());
    RingModel model(kSize, header);
    Put(model, "first");
    debug.InitDone();  // a second one changes nothing
    Put(model, "second");
    EXPECT_EQ("", Difference(model.file, ReadFile(kRuntimeRing)));
    EXPECT_TRUE(debug.IsTraceOn());
}

TEST_F(RingTest, DirectoryNameNeverBecomesACommand) {
    for (const std::string directory :
         {"-q", "-q -r", "/tmp/a b", "/tmp/$(touch x)", "/tmp/a'; touch x; '", "/tmp/`touch x`&"}) {
        fs::create_directories(directory);  // or an option of gzip's
        setenv("OV_LOG_RINGBUF_DIR", directory.c_str(), 1);
        ASSERT_TRUE(StartRing(debug));
        debug.InitDone();
        EXPECT_TRUE(fs::exists(directory + "/log.kemd_i.gz")) << directory;
        EXPECT_FALSE(fs::exists("x"));
    }
}

TEST_F(RingTest, SizeFollowsFactorAndWeight) {
    // Factor, weight, the module's own weight; the factor stored; MiB of the start-up file, where 0
    // is none and -1 refused.
    const std::vector<std::tuple<Text, Text, Text, int32_t, int64_t>> rows = {
        {"1", "1", nullptr, 1, 4},    {"5", "1", nullptr, 2, 8},
        {"1", "1", "3", 1, 12},       {"1", "0", nullptr, 1, 0},
        {"0", "1", nullptr, 0, 0},    {"1", "1", "", 1, 0},
        {"1", "1", "0x2", 1, 0},      {"2", "-2147483648", nullptr, 2, 0},
        {"1", "512", nullptr, 1, -1}, {"-1", "1", nullptr, -1, -1},
        {"2", "-1", nullptr, 2, -1},  {"2", "2147483647", nullptr, 2, -1}};
    Configure("FileDebugLevel=5\nMemoryTracesFlag=0");
    for (const auto& [factor, weight, own, stored, size] : rows) {
        SCOPED_TRACE(std::string(factor) + " x " + weight);
        setenv("TraceFileLimit", factor, 1);
        setenv("OV_LOG_RINGBUF_WEIGHT", weight, 1);
        SetOrUnset("OV_LOG_RINGBUF_WEIGHT_KEMD", own);
        EXPECT_EQ(size >= 0, debug.Init("kemd"));
        EXPECT_EQ(stored, debug.InForce().ringFactor);
        std::error_code none;
        EXPECT_EQ(size > 0 ? size << 20 : -1,
                  static_cast<int64_t>(fs::file_size(kStartupRing, none)));
        const std::string refused =
            Prefix() + "### InitRingBuffer(): mmap of " + kStartupRing + " failed (errno=";
        EXPECT_EQ(size < 0, ReadFile(kLog).starts_with(refused));
        if (size <= 0) ExpectOff();
        fs::remove(kStartupRing);
    }
}

TEST_F(RingTest, FileThatCannotBeOpenedSwitchesTracingOff) {
    for (const bool isFifo : {false, true}) {
        for (const std::string& path : {kStartupRing, kRuntimeRing}) {
            SCOPED_TRACE(path);
            TraceTest::SetUp();
            EXPECT_EQ(0, isFifo ? mkfifo(path.c_str(), 0600) : mkdir(path.c_str(), 0700));
            EXPECT_EQ(path == kRuntimeRing, StartRing(debug));
            debug.InitDone();
            EXPECT_EQ(Record("### InitRingBuffer(): open of " + path + " failed (errno=" +
                             (isFifo ? "22; Invalid argument" : "21; Is a directory") + ") ###"),
                      ReadFile(kLog));
            ExpectOff();
        }
    }
}

TEST_F(RingTest, FileThatCannotBeFilledIsEmptiedAndSwitchesTracingOff) {
    (void)signal(SIGXFSZ, SIG_IGN);
    for (const std::string& path : {kStartupRing, kRuntimeRing}) {
        const bool isStartup = path == kStartupRing;
        const rlim_t limit = SetLimit(RLIMIT_FSIZE, isStartup ? 3 * kSize : RLIM_INFINITY);
        EXPECT_EQ(!isStartup, StartRing(debug));
        SetLimit(RLIMIT_FSIZE, isStartup ? limit : kSize - 1);
        debug.InitDone();
        SetLimit(RLIMIT_FSIZE, limit);
        EXPECT_EQ(Record("### InitRingBuffer(): (2) write m_InternalDebugBuffer to " + path +
                         " failed ###"),
                  ReadFile(kLog));
        EXPECT_EQ(0u, fs::file_size(path));
        ExpectOff();
    }
}

TEST_F(RingTest, HeaderLargerThanTheFileNeverWraps) {
    ASSERT_TRUE(StartRing(debug));
    std::string argument(1000, 'a');  // longer than what is left at the end
    std::vector<char*> arguments(1100, argument.data());
    debug.SetCommandLine(static_cast<int>(arguments.size()), arguments.data());
    debug.InitDone();
    const size_t begin = ReadFile(kRuntimeRing).find(Record("### Begin of RingBuffer. ###"));
    EXPECT_EQ(0u, begin % 1024);
    for (int i = 0; i < 15; ++i) {
        const std::string text = std::to_string(i) + std::string(i % 5 == 0 ? 50'000 : 300, 'x');
        debug.Trace(1, "%s", text.c_str());
        const std::string file = ReadFile(kRuntimeRing);
        ASSERT_EQ(kSize, file.size());
        EXPECT_TRUE(file.starts_with(Record("kemd Command Line Options:")));
        // Behind the newest trailer there is no second one; the record before it may be cut.
        const size_t end = file.find("\n" + kTrailer, begin),
                     start = file.rfind(Prefix(), end) + Prefix().size();
        ASSERT_NE(file.npos, end);
        EXPECT_TRUE(text.starts_with(file.substr(start, end - start))) << i;
        EXPECT_EQ(i % 5 != 0, text.size() == end - start) << i;
    }
}

}  // namespace
