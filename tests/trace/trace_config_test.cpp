// What configuration files and environment say, from their bytes to the header that shows it.
#include "trace/trace_config.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/trace/trace_world.h"
#include "trace/config_file.h"

static bool readFails = false;

// The program's own definition takes the place of the C library's.
extern "C" dirent* readdir(DIR* directory) {
    static const auto next = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
    if (!readFails) return next(directory);
    errno = EIO;
    return nullptr;
}

namespace {

std::string Show(std::optional<std::string_view> view) {
    return view ? "'" + std::string(*view) + "'" : "none";
}

TEST(ConfigFile, FileNeedsAClosingSectionAndASectionEndsAtTheNextBracket) {
    const Texts files = {{"[a]\nx=1\n[EndOfFile]\n", "'[a]\nx=1\n[EndOfFile]'"},
                         {"[endoffile]after[the end", "'[endoffile]'"},
                         {"[a]\n[EndOfFile]\n[b]\n", "none"},  // not the last one
                         {"[a]\n[EndOfFile\n", "none"},
                         {std::string("[EndOfFile\0]", 12), "none"},
                         {"EndOfFile]", "none"},
                         {"", "none"}};
    for (const auto& [file, expected] : files) EXPECT_EQ(expected, Show(AcceptConfigText(file)));
    const Texts sections = {{"[KEMD]\na=1\n[other]", "'\na=1\n'"},
                            {"[a]x[kemd]1[kemd]2", "'1'"},
                            {"[kemd]a=1\nb=[2]", "'a=1\nb='"},
                            {"[kemd2]a[akemd]b", "none"},
                            {"[[kemd]a", "'a'"},
                            {"[kemd\na=1", "none"}};
    for (const auto& [text, expected] : sections)
        EXPECT_EQ(expected, Show(FindConfigSection(text, "kemd"))) << text;
}

TEST(ConfigFile, ValueStandsAfterTheNextEqualsSign) {
    const Texts rows = {{"Key \t= \t v a l\r\nnext", "'v a l'"},
                        {"Key=", "''"},
                        {"Key=\n\n  next=2", "'next=2'"},  // line ends are white space too
                        {"Key\nother=5", "'5'"},           // the next sign, on whatever line
                        {"# Key here\nKey=1", "'1'"},
                        {"MyKeyFive=5\nKey=1", "'5'"},
                        {"Key=123456789012", "'1234567890'"},  // cut at the limit
                        {"key=1", "none"},
                        {std::string("Key=a\0b", 7), std::string("'a\0b'", 5)}};
    for (const auto& [section, expected] : rows)
        EXPECT_EQ(expected, Show(FindConfigValue(section, "Key", 10))) << section;
    const std::map<std::string, int32_t> numbers = {
        {"Key=30", 30},
        {"Key=0x1E", 30},
        {"Key=-2", -2},
        {"Key=", 0},
        {"Other=1", -77},
        {"Key=99999999999999999999999", -1},
        {"Key=" + std::string(64, '0') + "1", 0}};  // the 65th character is not seen
    for (const auto& [section, expected] : numbers)
        EXPECT_EQ(expected, FindConfigNumber(section, "Key", -77)) << section;
}

using TraceConfigTest = TraceTest;

TEST_F(TraceConfigTest, NumbersComeFromTheEnvironmentThenTheFileThenTheDefault) {
    using Force = TraceValuesInForce;
    const struct {
        Text variable;
        std::string key;
        int32_t (*get)(const Force&);
        int32_t unset;
        int32_t minusOne;  // from the file
    } rows[] = {
        {"OV_LOG_FILE_MAX_SIZE", "", [](const Force& f) { return int32_t(f.logLimit); }, 51200,
         51200},
        {"OV_LOG_DEBUG_LEVEL", "FileDebugLevel", [](const Force& f) { return f.level; }, 0, -1},
        {"OV_LOG_DYNAMIC_UPDATE", "DynamicUpdate", [](const Force& f) { return f.dynamicUpdate; },
         0, 0},
        {"TraceFileLimit", "RingBufferSizeFactor", [](const Force& f) { return f.ringFactor; }, 0,
         0},
        {"OV_LOG_RINGBUF_WEIGHT", "RingBufferSizeWeight",
         [](const Force& f) { return f.ringWeight; }, 0, 0},
        {"OV_LOG_NOHDR_TOSDTERR", "NoHeaderToStderr", [](const Force& f) { return f.noHeader; }, 1,
         1}};
    for (const auto& row : rows) {
        const auto expect = [&](int32_t expected, Text environment, Text file) {
            SetOrUnset(row.variable, environment);
            const std::string line = file != nullptr ? row.key + "=" + file + "\n" : "";
            WriteConfig("global_trace.ini", "[GlobalDebugSettings]" + line + "[EndOfFile]");
            Configure(line + "MemoryTracesFlag=0");
            debug.Init("kemd");
            EXPECT_EQ(expected, row.get(debug.InForce())) << row.variable;
            unsetenv(row.variable);
        };
        expect(row.unset, nullptr, nullptr);
        expect(row.key.empty() ? row.unset : 30, nullptr, "0x1E");
        expect(row.minusOne, nullptr, "-1");  // the same as absent, but for the level
        expect(9, "9", "0x1E");
        expect(0, "0x1E", "7");  // base 10
        expect(0, "", "7");      // set, whatever it holds
        expect(-1, "-1", "7");
    }
}

TEST_F(TraceConfigTest, RingBufferDirectoryVariableNamesTheDirectoryOfAllFiles) {
    const std::vector<std::tuple<Text, Text, Text, std::string>> rows = {
        {nullptr, nullptr, "=", "/var/log/orvmon"},
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
    const std::vector<std::pair<Texts, int32_t>> rows = {
        {{{"b.ini", file("kemd", "2")}, {"a.ini", file("kemd", "1")}}, 1},
        {{{"a.ini", "[kemd]RingBufferSizeFactor=1"}, {"b.ini", file("kemd", "2")}}, 2},
        {{{"a.ini", file("other", "1")}, {"b.ini", file("KEMD", "2")}}, 2},
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

TEST_F(TraceConfigTest, HeaderShowsEnvironmentAndSettings) {
    Configure("FileDebugLevel=3\nRingBufferDirectory=/tmp\nNoHeaderToStderr=0\nMemoryTracesFlag=0");
    WriteConfig("global_trace.ini", "[GlobalDebugSettings]DynamicUpdate=0x10[EndOfFile]");
    setenv("OV_SYSTEM", "100%s %n", 1);
    setenv("AgentShut", "", 1);
    setenv("KXA_SYSLOG_FIFO", std::string(4096, 'f').c_str(), 1);
    ASSERT_TRUE(debug.Init("kemd"));
    const std::string cut(1024 - sizeof "KXA_SYSLOG_FIFO", 'f');  // as the log cuts every record
    Texts read, force;
    for (const char* name : {"RingBufferSizeFactor", "RingBufferSizeWeight"}) read[name] = "-1";
    for (const char* name : {"Trace Target", "Trace Level", "Trace Level Saved",
                             "Ring Buffer Factor", "Ring Buffer Weight", "Ring Buffer Size"})
        force[name] = "0";
    read.merge(Texts{{"DynamicUpdate", "16"},
                     {"DebugLevel", "3"},
                     {"RingBufferDirectory", "/tmp"},
                     {"No Header to LogFile", "0"}});
    force.merge(Texts{{"LogFile Path", "/tmp/log.kemd"},
                      {"Ring Buffer FD", "-1"},
                      {"Ring Buffer Directory", "/tmp"},
                      {"Ring Buffer Path", ""},
                      {"No Header to LogFile", "0"}});
    const Texts set = {{"OV_SYSTEM", "100%s %n"}, {"AgentShut", ""}, {"KXA_SYSLOG_FIFO", cut}};
    EXPECT_EQ("", Difference(Records(HeaderTexts(set, read, force)), ReadFile("/tmp/log.kemd")));
}

TEST_F(TraceConfigTest, OwnVariableIsNamedAfterTheModule) {
    setenv("OV_LOG_NOHDR_TOSDTERR", "0", 1);
    for (const auto& [module, suffix] :
         Texts{{"", ""},
               {"aB", "_AB"},
               {"abcdefghijklmnopqrstuvwxyz", "_ABCDEFGHIJKLMNOPQRSTUVWXY"}}) {
        std::string name = "OV_LOG_RINGBUF_WEIGHT" + suffix, file = module;
        setenv(name.c_str(), "23", 1);
        std::transform(file.begin(), file.end(), file.begin(), tolower);
        CDebug(module.c_str()).Close();
        const std::string end = " KB !" + Prefix(module).substr(35) + name + "=23\n";
        const std::string log = ReadFile("/var/log/orvmon/log." + file);
        EXPECT_NE(log.npos, log.find(end, log.find("KXA_SYSLOG_FIFO=NotSet\n"))) << module;
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
    EXPECT_EQ(2, debug.AsRead().level);
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
