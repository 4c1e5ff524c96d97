#include "trace/trace_config.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/trace/trace_world.h"

static bool readFails = false;

// The program's own definition takes the place of the C library's.
extern "C" dirent* readdir(DIR* directory) {
    static const auto next = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
    if (!readFails) return next(directory);
    errno = EIO;
    return nullptr;
}

namespace {

using TraceConfigTest = TraceTest;

TEST_F(TraceConfigTest, NumbersComeFromTheEnvironmentThenTheFileThenTheDefault) {
    using Force = CDebugTraceConfig::ValuesInForce;
    const struct {
        Text variable;
        std::string key;
        int32_t (*get)(const Force&);
        int32_t unset;
    } rows[] = {
        {"OV_LOG_FILE_MAX_SIZE", "", [](const Force& f) { return int32_t(f.logLimit); }, 51200},
        {"TraceFileLimit", "RingBufferSizeFactor", [](const Force& f) { return f.ringFactor; }, 0},
        {"OV_LOG_RINGBUF_WEIGHT", "RingBufferSizeWeight",
         [](const Force& f) { return f.ringWeight; }, 0},
        {"OV_LOG_NOHDR_TOSDTERR", "NoHeaderToStderr", [](const Force& f) { return f.noHeader; },
         1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.variable);
        const auto expect = [&](int32_t expected, Text environment, Text file) {
            SetOrUnset(row.variable, environment);
            Configure(file != nullptr ? row.key + "=" + file : "");
            EXPECT_TRUE(debug.Init("kemd"));
            EXPECT_EQ(expected, row.get(debug.InForce()));
            unsetenv(row.variable);
        };
        expect(row.unset, nullptr, nullptr);
        expect(row.key.empty() ? row.unset : 30, nullptr, "0x1E");
        expect(row.unset, nullptr, "-1");  // the same as absent
        expect(9, "9", "0x1E");
        expect(0, "0x1E", "7");  // base 10
        expect(0, "", "7");      // set, whatever it holds
        expect(-1, "-1", "7");
    }
}

TEST_F(TraceConfigTest, RingBufferDirectoryVariableNamesTheDirectoryOfAllFiles) {
    const std::vector<std::tuple<Text, Text, Text, std::string>> rows = {
        {nullptr, nullptr, "", "/var/log/orvmon"},
        {nullptr, nullptr, "=", "/var/log/orvmon"},
        {nullptr, nullptr, "=/tmp/key dir", "/tmp/key dir"},
        {"/tmp/file", nullptr, "", "/var/log/orvmon"},
        {"/tmp/file", nullptr, "=/tmp/key dir", "/tmp/key dir"},
        {"/tmp/file", "/tmp/ring", "=/tmp/key dir", "/tmp/ring"},
        {nullptr, "", "=/tmp/key dir", ""}};
    for (const auto& [fileVariable, ringVariable, key, expected] : rows) {
        if (!expected.empty()) fs::create_directory(expected);
        SetOrUnset("OV_LOG_FILE_DIR", fileVariable);
        SetOrUnset("OV_LOG_RINGBUF_DIR", ringVariable);
        Configure(std::string("RingBufferDirectory ") + key);
        debug.Init("kemd");
        EXPECT_EQ(expected, debug.InForce().logDirectory.Get());
        EXPECT_TRUE(fs::remove(expected + "/log.kemd")) << expected;
    }
}

TEST_F(TraceConfigTest, FirstFinishedFileInAlphabeticalOrderWithTheSectionCounts) {
    const auto file = [](Text section, Text factor) {
        return std::string("[") + section + "]RingBufferSizeFactor=" + factor + "\n[EndOfFile]\n";
    };
    const std::vector<std::pair<std::map<std::string, std::string>, int32_t>> rows = {
        {{{"b.ini", file("kemd", "2")}, {"a.ini", file("kemd", "1")}}, 1},
        {{{"a.ini", "[kemd]RingBufferSizeFactor=1"}, {"b.ini", file("kemd", "2")}}, 2},
        {{{"a.ini", file("other", "1")}, {"b.ini", file("KEMD", "2")}}, 2},
        {{{"a.ini", file("other", "1")}}, -1},
        {{{"a.ini", "[kemd]RingBufferSizeFactor=1[endoffile]"}}, 1},
        {{{"a.txt", file("kemd", "1")}, {"b.ini.old", file("kemd", "2")}}, 2},
        {{{"global_trace.ini", file("kemd", "3")}, {"k.ini", file("kemd", "4")}}, 3},
        {{{"a.ini/x", ""}, {"b.ini", file("kemd", "2")}}, 2},  // a directory
        {{{"a.ini", "[kemd][EndOfFile]"}, {"b.ini", file("kemd", "2")}}, -1}};
    for (const auto& [files, factor] : rows) {
        TraceTest::SetUp();
        for (const auto& [name, text] : files) WriteConfig(name, text);
        debug.Init("kemd");
        EXPECT_EQ(factor, debug.AsRead().ringFactor) << files.begin()->second;
    }
    ASSERT_EQ(0, mkfifo("/etc/norvik/OrvanaSuite/TraceConfig/0.ini", 0600));  // must not block
    EXPECT_TRUE(debug.Init("kemd"));
}

TEST_F(TraceConfigTest, DirectoryWithoutFilesLeavesEverythingUnread) {
    fs::create_directories("/etc/norvik/OrvanaSuite/TraceConfig");
    setenv("OV_LOG_RINGBUF_DIR", "/tmp", 1);
    setenv("OV_LOG_FILE_MAX_SIZE", "1", 1);
    EXPECT_TRUE(debug.Init("kemd"));
    EXPECT_EQ(51200u, debug.InForce().logLimit);
    EXPECT_TRUE(fs::remove("/log.kemd"));

    // Without the directory, or without all of it, the environment counts.
    for (const bool fails : {true, false}) {
        if (!fails) fs::remove_all("/etc/norvik");
        CDebug object;
        readFails = fails;
        object.Init("kemd");
        readFails = false;
        EXPECT_EQ(1u, object.InForce().logLimit);
        EXPECT_TRUE(fs::remove("/tmp/log.kemd"));
    }
}

class DynamicUpdateTest : public TraceTest {
  protected:
    void Global(const std::string& keys, time_t modified = kStart) {
        WriteConfig("global_trace.ini", "[GlobalDebugSettings]\n" + keys + "\n[EndOfFile]",
                    modified);
    }
    // The level after a trace call at that time. The call itself writes nothing.
    static uint32_t LevelAt(time_t second, CDebug& object) {
        SetClock(kStart + second);
        object.Trace(1000, "not written");
        return object.TraceLevel();
    }
};

TEST_F(DynamicUpdateTest, TakesLevelAndMemoryColumnFromAChangedFile) {
    setenv("OV_LOG_DEBUG_LEVEL", "4", 1);
    Global("DynamicUpdate=10");
    ASSERT_TRUE(StartRing(debug));
    EXPECT_EQ(4u, LevelAt(0, debug));
    const std::string keys = "FileDebugLevel=2\nMemoryTracesFlag=1\nRingBufferSizeWeight=7";
    Configure(keys, kStart - 1);  // older than what was read
    EXPECT_EQ(4u, LevelAt(10, debug));
    Configure(keys, kStart + 1);
    EXPECT_EQ(2u, LevelAt(20, debug));  // not the environment's
    EXPECT_EQ(2u, debug.SavedTraceLevel());
    EXPECT_EQ(2, debug.ConfiguredLevel());
    EXPECT_EQ(1, debug.AsRead().memoryTraces);
    EXPECT_EQ(1, debug.AsRead().ringWeight);  // no other key
    Configure("FileDebugLevel=3", kStart + 2);
    EXPECT_EQ(3u, LevelAt(5, debug));  // the clock went back: due at once
    WriteConfig("kemd.ini", "[kemd]FileDebugLevel=6", kStart + 3);
    EXPECT_EQ(3u, LevelAt(20, debug));  // unfinished: not looked at again
    Configure("FileDebugLevel=6", kStart + 4);
    EXPECT_EQ(3u, LevelAt(30, debug));
}

TEST_F(DynamicUpdateTest, GlobalFileChangesTheInterval) {
    Global("DynamicUpdate=10");
    ASSERT_TRUE(StartRing(debug));
    EXPECT_EQ(5u, LevelAt(0, debug));
    fs::remove("/etc/norvik/OrvanaSuite/TraceConfig/global_trace.ini");
    LevelAt(10, debug);  // the interval stays
    Global("DynamicUpdate=2", kStart - 50);
    Configure("FileDebugLevel=6", kStart + 1);
    EXPECT_EQ(6u, LevelAt(20, debug));  // the file is back, however old
    Configure("FileDebugLevel=7", kStart + 2);
    EXPECT_EQ(7u, LevelAt(22, debug));
    Global("DynamicUpdate=0", kStart + 3);
    EXPECT_EQ(7u, LevelAt(24, debug));
    Configure("FileDebugLevel=8", kStart + 4);
    EXPECT_EQ(7u, LevelAt(1000, debug));  // switched off
}

}  // namespace
