#include "trace/header.h"

#include "tests/trace/trace_world.h"

namespace {

using HeaderTest = TraceTest;

TEST_F(HeaderTest, LogFileShowsEnvironmentAndSettingsButNoCommandLine) {
    Configure("FileDebugLevel=3\nRingBufferDirectory=/tmp\nNoHeaderToStderr=0\nMemoryTracesFlag=0");
    WriteConfig("global_trace.ini", "[GlobalDebugSettings]DynamicUpdate=0x10[EndOfFile]");
    setenv("OV_SYSTEM", "100%s %n", 1);
    setenv("AgentShut", "", 1);
    setenv("KXA_SYSLOG_FIFO", std::string(4096, 'f').c_str(), 1);
    ASSERT_TRUE(debug.Init("kemd"));
    const std::string cut(1024 - sizeof "KXA_SYSLOG_FIFO", 'f');  // as the log cuts every record
    const Lines expected = HeaderTexts(
        {{"OV_SYSTEM", "100%s %n"}, {"AgentShut", ""}, {"KXA_SYSLOG_FIFO", cut}},
        {"16", "3", "-1", "-1", "/tmp", "0"},
        {"1", "0", "0", "0", "0", "/tmp/log.kemd", "51200", "-1", "0", "0", "0", "/tmp", "", "0"});
    EXPECT_EQ("", Difference(Records(expected), ReadFile("/tmp/log.kemd")));
}

TEST_F(HeaderTest, OwnVariableIsNamedAfterTheModule) {
    setenv("OV_LOG_NOHDR_TOSDTERR", "0", 1);
    for (const auto& [module, suffix] : std::map<std::string, std::string>{
             {"", ""},
             {"aB", "_AB"},
             {"abcdefghijklmnopqrstuvwxy", "_ABCDEFGHIJKLMNOPQRSTUVWXY"},
             {"abcdefghijklmnopqrstuvwxyz", "_ABCDEFGHIJKLMNOPQRSTUVWXY"}}) {
        std::string name = "OV_LOG_RINGBUF_WEIGHT" + suffix, file = module;
        setenv(name.c_str(), "23", 1);
        std::transform(file.begin(), file.end(), file.begin(), tolower);
        CDebug(module.c_str()).Close();
        // With the memory column: "... KB !tag"; a tag takes 13 columns and a blank at least.
        const std::string end = " KB !" + Prefix(module).substr(35) + name + "=23\n";
        const std::string log = ReadFile("/var/log/orvmon/log." + file);
        EXPECT_NE(log.npos, log.find(end, log.find("KXA_SYSLOG_FIFO=NotSet\n"))) << module;
    }
}

}  // namespace
