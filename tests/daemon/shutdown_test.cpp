// Signals, the orderly stop, and the ways out that are none.
#include <filesystem>

#include "tests/daemon/daemon_test.h"

namespace {

namespace fs = std::filesystem;

TEST_F(DaemonTest, StopCallsTheModulesInOrder) {
    const struct {
        std::string file;
        std::string level;
        std::string shutdown;
        int signal;
    } cases[] = {
        {"0\n", "0", "NotifyModules code=0x30000 data=0 word=0\n", SIGTERM},
        {"6 and more", "6", "NotifyModules code=0x30000 data=6 word=0\n", SIGINT},
        {"3\n", "-1", "", SIGTERM},
        {"", "5", "", SIGINT},  // there is no file
    };
    for (const auto& [file, level, shutdown, signal] : cases) {
        WriteFile("/etc/orvmon/RunLevel", file);
        if (file.empty()) fs::remove("/etc/orvmon/RunLevel");
        const pid_t pid = Run();
        EXPECT_EQ(Stop(pid, signal), 0) << level;
        EXPECT_EQ(Calls(),
                  "SW_QueryInterface identifier=0\n"
                  "LoadModules flags=0 mode=0\n"
                  "StartAllModules\n"
                  "NotifyModules code=0x20000 word=0\n" +
                      shutdown +
                      "StopAllModules\n"
                      "UnloadModules options=0\n"
                      "SW_Release\n");
        const std::string number = std::to_string(signal);
        EXPECT_TRUE(InOrder(Log(), {"KEMD-MAIN:  ... got signal " + number + "\n",
                                    "KEMD-MAIN: Signal " + number + " caught -> processing\n",
                                    "KEMD-MAIN: Current RunLevel = " + level + "\n",
                                    "KEMD-MAIN: ## Someone signaled exit state ##\n",
                                    "KEMD-MAIN: ## EXIT PROCESS KEMD ##\n"}));
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile)) << level;
    }
}

TEST_F(DaemonTest, HangupTogglesTracingAndAlarmDoesNothing) {
    const std::string hangup = "KEMD-MAIN: Signal 1 (SIGHUP) caught\n";
    const std::string off = "KEMD-MAIN: Trace reset due to SIGHUP\n";
    const std::string on = "KEMD-MAIN: Trace forced due to SIGHUP\n";
    const std::string alarm = "KEMD-MAIN: WARNING: Signal 14 (SIGALRM) caught -> ignoring\n";
    const std::string stopping = "KEMD-MAIN::OnExitService      : ";
    for (const int hangups : {1, 2}) {
        const pid_t pid = Run();
        kill(pid, SIGHUP);
        ASSERT_TRUE(WaitForLog(off));
        if (hangups == 2) {
            kill(pid, SIGHUP);
            ASSERT_TRUE(WaitForLog(on));
        }
        kill(pid, SIGALRM);
        ASSERT_TRUE(WaitForLog(alarm));
        EXPECT_EQ(Stop(pid), 0);
        std::vector<std::string> texts{"got signal 1\n", hangup, off};
        if (hangups == 2) texts.insert(texts.end(), {"got signal 1\n", hangup, on});
        texts.insert(texts.end(), {"got signal 14\n", alarm, "got signal 15\n"});
        EXPECT_TRUE(InOrder(Log(), texts));
        EXPECT_TRUE(InOrder(Trace(), texts));  // messages get there in either state
        EXPECT_EQ(static_cast<bool>(InOrder(
                      Trace(), {"KEMD-MAIN: /usr/bin/systemctl detected on this OS\n",
                                stopping + "Stopping all modules...\n",
                                stopping + "... all modules stopped\n",
                                stopping + "Start unload of all registered extension modules ...\n",
                                stopping + "... unload of all registered extension modules "
                                           "completed!\n"})),
                  hangups == 2);
    }
}

TEST_F(DaemonTest, ExceptionOfTheLibraryEndsItCleanly) {
    const struct {
        const char* script;
        const char* text;
        const char* lastCall;
    } cases[] = {
        {"start", "library says start", "start\n"},
        {"notify odd", "nknown exception", "notify\n"},
        {"stop", "library says stop", "stop\n"},
    };
    for (const auto& [script, text, lastCall] : cases) {
        UseSwitch("throwing", script);
        const bool atStart = std::string(script) == "start";
        const pid_t pid = atStart ? Start({"-n"}) : Run();
        EXPECT_EQ(atStart ? WaitForExit(pid) : Stop(pid), 1) << script;
        EXPECT_TRUE(Calls().ends_with(lastCall)) << Calls();  // neither unload nor SW_Release
        EXPECT_TRUE(InOrder(Log(), {"xception", "\n"}));
        EXPECT_TRUE(InOrder(Log(), {text}));
        EXPECT_FALSE(InOrder(Log(), {"xception", "\n", "xception"}));
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile)) << script;
    }
}

TEST_F(DaemonTest, RingKeepsTheNewestRecordOfAKilledDaemon) {
    const pid_t pid = Run();
    const std::string newest = "Signal 14 (SIGALRM) caught -> ignoring\n";
    kill(pid, SIGALRM);
    ASSERT_TRUE(WaitForLog(newest));
    EXPECT_EQ(Stop(pid, SIGKILL), 1000 + SIGKILL);
    const std::string ring = ReadFile("/var/log/orvmon/log.kemd_a");
    EXPECT_EQ(ring.size(), 1024U * 1024U);
    EXPECT_TRUE(RingText("/var/log/orvmon/log.kemd_a").ends_with(newest));
    // What it left behind does not keep the next one from starting.
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
    const pid_t next = Start({"-n"});
    ASSERT_TRUE(WaitForCall("StartAllModules"));
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(next));
}

TEST_F(DaemonTest, ReferenceLibraryRunsTheExampleModules) {
    UseSwitch("reference");
    m_environment["OV_MODULE_DIR"] = "/build/modules";
    WriteFile("/etc/orvmon/RunLevel", "6");
    const pid_t pid = Run();
    ASSERT_TRUE(WaitFor([this] { return static_cast<bool>(InOrder(Trace(), {" beat "})); }));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(InOrder(
        Trace(),
        {" switch        module heartbeat.so started\n", "module notifications.so started\n",
         " notifications notification 0x20000\n", "notification 0x30000, run level 6\n",
         "module notifications.so stopped\n", "module heartbeat.so stopped\n",
         "unload of all registered extension modules completed!\n"}));
}

}  // namespace
