// Signals, the orderly stop, and ends that are not orderly.
#include <filesystem>

#include "tests/daemon/daemon_test.h"

namespace {

namespace fs = std::filesystem;

TEST_F(DaemonTest, StopCallsTheModulesInOrder) {
    const struct {
        std::string file;  // empty: there is none
        std::string level;
        std::string shutdown;
        int signal;
    } cases[] = {{"0\n", "0", "NotifyModules code=3 data=0 word=0\n", SIGTERM},
                 {"6 and more", "6", "NotifyModules code=3 data=6 word=0\n", SIGINT},
                 {"3\n", "-1", "", SIGTERM},
                 {"", "5", "", SIGINT}};
    for (const auto& [file, level, shutdown, signal] : cases) {
        WriteFile("/etc/orvmon/RunLevel", file);
        if (file.empty()) fs::remove("/etc/orvmon/RunLevel");
        EXPECT_EQ(Stop(Run(), signal), 0) << level;
        EXPECT_EQ(Calls(),
                  "SW_QueryInterface identifier=0\nLoadModules flags=0 mode=0\nStartAllModules\n"
                  "NotifyModules code=2 data=- word=0\n" +
                      shutdown + "StopAllModules\nUnloadModules options=0\nSW_Release\n");
        const std::string number = std::to_string(signal);
        EXPECT_TRUE(InOrder(Log(), {"KEMD-MAIN:  ... got signal " + number + "\n",
                                    "KEMD-MAIN: Signal " + number + " caught -> processing\n",
                                    "KEMD-MAIN: Current RunLevel = " + level + "\n",
                                    "KEMD-MAIN: ## Someone signaled exit state ##\n",
                                    "KEMD-MAIN: ## EXIT PROCESS KEMD ##\n"}));
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile)) << level;
    }
    const std::string missing = "KEMD-MAIN: cannot open /etc/orvmon/RunLevel ";
    const std::string exit = "KEMD-MAIN::OnExitService      : ";
    EXPECT_TRUE(
        InOrder(Trace(), {missing + "(try 0)\n", missing + "(try 1)\n", missing + "(try 2)\n",
                          "KEMD-MAIN: this seems to be a simple stop of KEMD (not OS shutdown)\n",
                          exit + "Stopping all modules...\n", exit + "... all modules stopped\n",
                          exit + "Start unload of all registered extension modules ...\n",
                          exit + "... unload of all registered extension modules completed!\n"}));
}

TEST_F(DaemonTest, HangupTogglesTracingAndAlarmDoesNothing) {
    const std::string off = "KEMD-MAIN: Trace reset due to SIGHUP\n";
    const pid_t pid = Run();
    std::vector<std::string> texts;
    for (const auto& [signal, text] :
         {std::pair{SIGHUP, off},
          {SIGALRM, "KEMD-MAIN: WARNING: Signal 14 (SIGALRM) caught -> ignoring\n"},
          {SIGHUP, "KEMD-MAIN: Trace forced due to SIGHUP\n"},
          {SIGHUP, off}}) {
        texts.push_back("got signal " + std::to_string(signal) + "\n");
        if (signal == SIGHUP) texts.emplace_back("KEMD-MAIN: Signal 1 (SIGHUP) caught\n");
        texts.push_back(text);
        kill(pid, signal);
        ASSERT_TRUE(WaitFor([&] { return static_cast<bool>(InOrder(Log(), texts)); }));
    }
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(InOrder(Trace(), texts));  // messages get there in either state
    EXPECT_FALSE(Contains(Trace(), "OnExitService"));
}

TEST_F(DaemonTest, FaultsOfTheLibraryHaveTheirEnds) {
    const std::string stopped = "StopAllModules\nUnloadModules options=0\nSW_Release\n";
    const std::string notified = "StartAllModules\nNotifyModules code=2 data=- word=0\n";
    const struct {
        std::string script;
        bool runs;  // until it is stopped
        int status;
        const char* text;
        std::string lastCalls;
    } cases[] = {
        {"missing", false, 1, "FATAL ERROR! Server Control SWITCH could not be loaded!\n", ""},
        {"fail-query", false, 1, "SWITCH could not be loaded!\n", "identifier=0\n"},
        {"SW_QueryInterface odd", false, 1, "Exception during SW_QueryInterface\n",
         "identifier=0\n"},
        {"UnloadModules odd", true, 0, "Exception during UnloadModules\n", stopped},
        {"SW_Release", true, 0, "Exception during SW_Release\n", stopped},
        {"init", false, 1, "libswitch.so: exception in an initialiser\n", ""},
        {"fail-load", true, 0, "ERROR! Load extension modules FAILED!\n", stopped},
        {"LoadModules", true, 0, "ERROR! Load extension modules FAILED!\n", stopped},
        // Whatever becomes of the exit event.
        {"reset-event", true, 0, "## EXIT PROCESS", notified + stopped},
        {"StartAllModules memory", false, 1, "bad_alloc\n", "StartAllModules\n" + stopped},
        {"NotifyModules memory", true, 1, "bad_alloc\n", notified + stopped},
        {"StopAllModules memory", true, 1, "bad_alloc\n", "StopAllModules\n"},
        // A child that comes back is not the daemon.
        {"StartAllModules fork", true, 0, "EXIT", notified + stopped},
        {"StartAllModules fork memory", true, 0, "EXIT", notified + stopped},
        {"NotifyModules fork back", true, 0, "EXIT", notified + stopped},
        // After other exceptions the library is not called again, not even to release it.
        {"StartAllModules", false, 1, "library says StartAllModules\n", "StartAllModules\n"},
        {"NotifyModules odd", true, 1, "nknown exception", notified},
        {"StopAllModules", true, 1, "library says StopAllModules\n", "StopAllModules\n"},
    };
    // The daemon does not look for libraries in its working directory.
    fs::copy("/test/switches/c/libswitch.so", "/libswitch.so");
    for (const auto& [script, runs, status, text, lastCalls] : cases) {
        SCOPED_TRACE(script);
        UseSwitch(script == "missing" ? script : "c", script);
        const pid_t pid = Run();
        EXPECT_EQ(ReadFile(kPidFile), runs ? std::to_string(pid) + "\n" : "");
        EXPECT_EQ(Contains(Log(), "## Done initializing ##"), runs);
        EXPECT_EQ(Stop(pid), status);
        EXPECT_TRUE(Contains(Log() + Trace(), text)) << text;
        EXPECT_FALSE(InOrder(Log(), {"xception", "xception"}));  // one message at most
        EXPECT_TRUE(Calls().ends_with(lastCalls)) << Calls();
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile));
    }
    fs::remove("/libswitch.so");
}

// The event was set by another thread, and the handle closed: the next signal ends the loop.
TEST_F(DaemonTest, EventThatAModuleSetsAndClosesStopsIt) {
    UseSwitch("c", "set-event");
    EXPECT_EQ(Stop(Run(), SIGALRM), 0);
    EXPECT_FALSE(Contains(Calls(), "NotifyModules"));
}

TEST_F(DaemonTest, RingKeepsTheNewestRecordOfAKilledDaemon) {
    const pid_t pid = Run();
    const std::string newest = "Signal 14 (SIGALRM) caught -> ignoring\n";
    kill(pid, SIGALRM);
    ASSERT_TRUE(WaitForLog(newest));
    EXPECT_EQ(Stop(pid, SIGKILL), 1000 + SIGKILL);
    EXPECT_TRUE(RingText("/var/log/orvmon/log.kemd_a").ends_with(newest));
    // The files that it leaves do not keep the next one from starting.
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
    const pid_t next = StartAndWait({"-n"});
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(next));
}

}  // namespace
