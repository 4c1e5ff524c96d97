// What configuration files and environment set, from their bytes to the header that shows it.
#include "trace/trace_config.h"

#include <sys/stat.h>

#include "tests/trace/trace_world.h"
#include "trace/config_file.h"

namespace {

TEST(ConfigFile, FileSectionAndValueEndWhereTheyShould) {
    const Texts files = {{"[a]\nx=1\n[EndOfFile]\n", "[a]\nx=1\n[EndOfFile]"},
                         {"[endoffile]after[the end", "[endoffile]"},
                         {"[a]\n[EndOfFile]\n[b]\n", "none"},  // not the last one
                         {"[a]\n[EndOfFile\n", "none"}};
    for (const auto& [file, expected] : files)
        EXPECT_EQ(expected, AcceptConfigText(file).value_or("none"));
    const Texts sections = {{"[KEMD]\na=1\n[other]", "\na=1\n"},
                            {"[a]x[kemd]1[kemd]2", "1"},
                            {"[kemd2]a[[kemd]b", "b"},
                            {"[kemd\na=1", "none"}};
    for (const auto& [text, expected] : sections)
        EXPECT_EQ(expected, FindConfigSection(text, "kemd").value_or("none")) << text;
    const Texts values = {{"Key \t= \t v a l\r\nnext", "v a l"},
                          {"Key=\n\n  next=2", "next=2"},  // line ends are white space too
                          {"Key\nother=5", "5"},           // the next sign, on whatever line
                          {"MyKeyFive=5\nKey=1", "5"},
                          {"Key=123456789012", "1234567890"},  // cut at the limit
                          {"key=1", "none"}};
    for (const auto& [section, expected] : values)
        EXPECT_EQ(expected, FindConfigValue(section, "Key", 10).value_or("none")) << section;
}

using TraceConfigTest = TraceTest;

TEST_F(TraceConfigTest, NumbersComeFromTheEnvironmentThenTheFileThenTheDefault) {
    using Force = TraceValuesInForce;
    const std::tuple<Text, Text, int32_t Force::*, int32_t> rows[] = {
        {"OV_LOG_DEBUG_LEVEL", "FileDebugLevel", &Force::level, 0},
        {"OV_LOG_DYNAMIC_UPDATE", "DynamicUpdate", &Force::dynamicUpdate, 0},
        {"TraceFileLimit", "RingBufferSizeFactor", &Force::ringFactor, 0},
        {"OV_LOG_RINGBUF_WEIGHT", "RingBufferSizeWeight", &Force::ringWeight, 0},
        {"OV_LOG_NOHDR_TOSDTERR", "NoHeaderToStderr", &Force::noHeader, 1}};
    for (const auto& [variable, key, member, unset] : rows) {
        const auto expect = [&, key = key, variable = variable, member = member](
                                int32_t expected, Text environment, Text file) {
            SetOrUnset(variable, environment);
            const std::string line = file != nullptr ? std::string(key) + "=" + file + "\n" : "";
            WriteConfig("global_trace.ini", "[GlobalDebugSettings]" + line + "[EndOfFile]");
            Configure(line + "MemoryTracesFlag=0");
            debug.Init("kemd");
            EXPECT_EQ(expected, debug.InForce().*member) << variable;
            unsetenv(variable);
        };
        expect(unset, nullptr, nullptr);
        expect(30, nullptr, "0x1E");
        expect(member == &Force::level ? -1 : unset, nullptr, "-1");  // elsewhere it is absent
        expect(9, "9", "0x1E");
        expect(0, "0x1E", "7");  // base 10
        expect(0, "", "7");      // set, whatever it holds
    }
}

TEST_F(TraceConfigTest, DirectoryOfAllFilesWhoseNameNeverBecomesACommand) {
    const std::tuple<Text, std::string, std::string> rows[] = {
        {nullptr, "", "/var/log/orvmon"},
        {nullptr, "/tmp/$(touch x)", "/tmp/$(touch x)"},
        {"/tmp/a'; touch x; '", "/tmp", "/tmp/a'; touch x; '"},
        {"-q -r", "", "-q -r"}};  // not an option of gzip's
    setenv("TraceFileLimit", "1", 1);
    setenv("OV_LOG_RINGBUF_WEIGHT", "1", 1);
    for (const auto& [variable, key, expected] : rows) {
        fs::create_directories(expected);
        SetOrUnset("OV_LOG_RINGBUF_DIR", variable);
        Configure("FileDebugLevel=5\nMemoryTracesFlag=0\nRingBufferDirectory=" + key);
        ASSERT_TRUE(debug.Init("kemd"));
        debug.InitDone();
        for (const Text end : {"", "_a", "_i.gz"})
            EXPECT_TRUE(fs::remove(expected + "/log.kemd" + end)) << expected << end;
        EXPECT_FALSE(fs::exists("x"));
    }
}

TEST_F(TraceConfigTest, FirstFinishedFileInAlphabeticalOrderWithTheSectionCounts) {
    const auto file = [](Text section, Text factor) {
        return std::string("[") + section + "]RingBufferSizeFactor=" + factor + "\n[EndOfFile]\n";
    };
    const std::vector<std::pair<Texts, int32_t>> rows = {
        {{{"b.ini", file("kemd", "2")}, {"a.ini", file("kemd", "1")}}, 1},
        {{{"a.ini", "[kemd]RingBufferSizeFactor=1"}, {"b.ini", file("kemd", "2")}}, 2},
        {{{"a.ini", file("other", "1")}, {"b.ini.old", file("KEMD", "2")}}, 2},
        {{{"a.txt", file("kemd", "1")}, {"global_trace.ini", file("kemd", "3")}}, 3},
        {{{"a.ini/x", ""}, {"b.ini", file("kemd", "2")}}, 2}};  // a directory
    for (const auto& [files, factor] : rows) {
        TraceTest::SetUp();
        for (const auto& [name, text] : files) WriteConfig(name, text);
        debug.Init("kemd");
        EXPECT_EQ(factor, debug.AsRead().ringFactor) << files.begin()->second;
    }
    ASSERT_EQ(0, mkfifo((kConfigDirectory + "0.ini").c_str(), 0600));  // must not block
    EXPECT_TRUE(debug.Init("kemd"));
    fs::remove_all(kConfigDirectory);  // the environment counts without it
    setenv("OV_LOG_FILE_MAX_SIZE", "1", 1);
    debug.Init("kemd");
    EXPECT_EQ(1u, debug.InForce().logLimit);
}

TEST_F(TraceConfigTest, HeaderShowsEnvironmentAndSettings) {
    Configure("FileDebugLevel=3\nRingBufferDirectory=/tmp\nNoHeaderToStderr=0\nMemoryTracesFlag=0");
    WriteConfig("global_trace.ini", "[GlobalDebugSettings]DynamicUpdate=0x10[EndOfFile]");
    for (const Text name : {"TraceFileLimit", "OV_LOG_RINGBUF_WEIGHT_KEMD"}) setenv(name, "1", 1);
    setenv("OV_SYSTEM", "100%s %n", 1);
    setenv("AgentShut", "", 1);
    ASSERT_TRUE(debug.Init("kemd"));
    const std::string log = ReadFile("/tmp/log.kemd");
    EXPECT_TRUE(InOrder(
        log, {"Orvana Environment:\n" + Record("LD_LIBRARY_PATH=NotSet"), "OV_SYSTEM=100%s %n\n",
              "OV_LOG_RINGBUF_WEIGHT_KEMD=1\n", "AgentShut=\n", "TraceFileLimit=1\n"}));
    EXPECT_EQ(80, std::count(log.begin(), log.end(), '\n'));
    const Lines settings = {
        "InvAgtPollNetUtilization=NotSet",
        "Debug values from ini file :",
        "DynamicUpdate              : 16",
        "DebugLevel                 : 3",
        "RingBufferSizeFactor       : -1",
        "RingBufferSizeWeight       : -1",
        "RingBufferDirectory        : /tmp",
        "No Header to LogFile       : 0",
        "Internal Debug values      :",
        "Process PID                : 1",
        "Trace Target               : 2",
        "Trace Level                : 3",
        "Trace Level Saved          : 3",
        "Application Init Done      : 0",
        "LogFile Path               : /tmp/log.kemd",
        "LogFile Max Size           : 51200",
        "Ring Buffer FD             : " + std::to_string(DescriptorOf("/tmp/log.kemd_i")),
        "Ring Buffer Factor         : 1",
        "Ring Buffer Weight         : 1",
        "Ring Buffer Size           : 4194304",
        "Ring Buffer Directory      : /tmp",
        "Ring Buffer Path           : /tmp/log.kemd_a",
        "No Header to LogFile       : 0",
        "# End of header."};
    EXPECT_TRUE(log.ends_with(Records(settings))) << log;
    EXPECT_TRUE(ReadFile("/tmp/log.kemd_i").starts_with(log));
}

TEST_F(TraceConfigTest, DynamicUpdateTakesLevelMemoryColumnAndIntervalFromChangedFiles) {
    const auto setInterval = [](Text seconds, time_t modified) {
        WriteConfig("global_trace.ini",
                    std::string("[GlobalDebugSettings]DynamicUpdate=") + seconds + "\n[EndOfFile]",
                    modified);
    };
    uint32_t shared = 0;
    debug.ShareLevel(&shared);
    // The level after a trace call at that time. The call itself writes nothing.
    const auto levelAt = [&](time_t second) {
        SetClock(kStart + second);
        debug.Trace(1000, "not written");
        EXPECT_EQ(shared, debug.TraceLevel());
        return debug.TraceLevel();
    };
    setenv("OV_LOG_DEBUG_LEVEL", "4", 1);
    setInterval("10", kStart);
    ASSERT_TRUE(StartRing(debug));
    EXPECT_EQ(4u, levelAt(0));
    const std::string keys = "FileDebugLevel=2\nMemoryTracesFlag=1\nRingBufferSizeWeight=7";
    Configure(keys, kStart - 1);  // older than what was read
    EXPECT_EQ(4u, levelAt(10));
    Configure(keys, kStart + 1);
    EXPECT_EQ(4u, levelAt(19));  // not due yet
    EXPECT_EQ(2u, levelAt(20));  // not the environment's
    EXPECT_EQ(2u, debug.SavedTraceLevel());
    EXPECT_EQ(1, debug.AsRead().memoryTraces);
    EXPECT_EQ(1, debug.AsRead().ringWeight);  // no other key
    Configure("FileDebugLevel=3", kStart + 2);
    setInterval("2", kStart + 2);
    EXPECT_EQ(3u, levelAt(5));  // the clock went back: due at once
    Configure("FileDebugLevel=6", kStart + 3);
    EXPECT_EQ(6u, levelAt(7));
    setInterval("0", kStart + 4);
    EXPECT_EQ(6u, levelAt(9));
    Configure("FileDebugLevel=8", kStart + 5);
    EXPECT_EQ(6u, levelAt(1000));  // switched off
    debug.ShareLevel(nullptr);
}

}  // namespace
