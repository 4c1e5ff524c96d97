// From the command line to the started modules.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/daemon/daemon_test.h"
#include "trace/environment.h"

namespace {

namespace fs = std::filesystem;

std::string StatusField(pid_t pid, const std::string& key) {
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    const size_t value = status.find(key + ":\t") + key.size() + 2;
    return status.substr(value, status.find('\n', value) - value);
}

// The flags with which a process holds a file open; -1 when it does not.
int OpenFlags(pid_t pid, const std::string& path) {
    const std::string process = "/proc/" + std::to_string(pid);
    for (const auto& entry : fs::directory_iterator(process + "/fd")) {
        if (fs::read_symlink(entry) != path) continue;
        const std::string info = ReadFile(process + "/fdinfo/" + entry.path().filename().string());
        return std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8);
    }
    return -1;
}

bool IsHeld(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return held;
}

TEST_F(DaemonTest, OnlyRootMayStartIt) {
    fs::permissions("/usr", fs::perms(0755));  // the sandbox made it for root alone
    const auto canStart = [] { _exit(setuid(1) == 0 && access("/build/kemd", X_OK) == 0 ? 0 : 1); };
    if (WaitForExit(Start({}, canStart)) != 0) GTEST_SKIP() << "no other user can start it here";
    EXPECT_EQ(WaitForExit(Start({"-n"}, [] { (void)!setuid(1); })), 1);
    EXPECT_EQ(Complaints(), "/build/kemd: KEMD-MAIN: Error! Permission denied\n");
    EXPECT_FALSE(fs::exists(kLockFile));
}

TEST_F(DaemonTest, SecondInstanceFailsInSightOfItsStarter) {
    const pid_t first = Start({"-n"});
    ASSERT_TRUE(WaitForCall("StartAllModules"));
    const std::string lock = "kemd#" + std::to_string(first);
    EXPECT_EQ(WaitForExit(Start({})), 1);
    EXPECT_EQ(Complaints(),
              "/build/kemd: KEMD-MAIN: Error! Another process instance is already running!\n");
    EXPECT_EQ(ReadFile(kLockFile), lock);
    EXPECT_EQ(Calls(), "");
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(first) + "\n");
}

TEST_F(DaemonTest, OnlyTheWholeSwitchKeepsItInTheForeground) {
    const struct {
        std::vector<std::string> arguments;
        bool foreground;
    } cases[] = {
        {{"-n"}, true},        {{"-nodemon"}, true}, {{"-x", "-rescan", "-nodemon"}, true},
        {{"-N"}, false},       {{"-nn"}, false},     {{"-nodemonX", "-nodemo", "n"}, false},
        {{"--nodemon"}, false}};
    for (const auto& [arguments, foreground] : cases) {
        fs::remove(kPidFile);
        const pid_t started = Start(arguments);
        const pid_t daemon = PidFromFile();
        EXPECT_EQ(daemon == started, foreground) << arguments[0];
        EXPECT_EQ(Complaints(),
                  foreground ? "/build/kemd: KEMD-MAIN: started in \"No Demon\" Mode\n" : "")
            << arguments[0];
        if (!foreground) {
            EXPECT_EQ(WaitForExit(started), 0) << arguments[0];
        }
        Kill(daemon);
    }
}

TEST_F(DaemonTest, BackgroundProcessIsDetached) {
    const pid_t parent = Start({}, [] {
        umask(0);
        (void)!chdir("/tmp");
        signal(SIGPIPE, SIG_DFL);
    });
    ASSERT_EQ(WaitForExit(parent), 0);
    const pid_t daemon = PidFromFile();
    EXPECT_NE(daemon, parent);
    EXPECT_EQ(getsid(daemon), daemon);
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(parent));
    EXPECT_TRUE(IsHeld(kLockFile));
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(daemon) + "/cwd"), "/");
    EXPECT_EQ(StatusField(daemon, "Umask"), "0026");
    EXPECT_EQ(fs::status(kPidFile).permissions(), fs::perms(0640));
    EXPECT_EQ(StatusField(daemon, "SigBlk"), "0000000000006003");  // 1, 2, 14, 15
    const auto ignored = std::stoull(StatusField(daemon, "SigIgn"), nullptr, 16);
    for (const int number : {SIGPIPE, SIGIO}) EXPECT_TRUE(ignored >> (number - 1) & 1) << number;
    for (const std::string file : {"/run/lock/kemd.lock", "/var/log/orvmon/log.kemd"}) {
        EXPECT_EQ(OpenFlags(daemon, file) & (O_CLOEXEC | O_RDWR), O_CLOEXEC | O_RDWR) << file;
    }
}

TEST_F(DaemonTest, ClosedStandardDescriptorsAreFilled) {
    const pid_t pid = Start({"-n"}, [] {
        for (int fd = 0; fd < 3; ++fd) close(fd);
    });
    ASSERT_EQ(PidFromFile(), pid);
    for (const char* fd : {"0", "1", "2"}) {
        EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd), "/dev/null");
    }
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(pid));
}

TEST_F(DaemonTest, RunModeReachesTheSwitchLibrary) {
    const struct {
        std::vector<std::string> arguments;
        std::string loaded;
        int mode;
    } cases[] = {
        {{}, "flags=0 mode=0", 0},
        {{"-rescan"}, "flags=1 mode=0", 0},
        {{"-agentless", "-ovupd"}, "flags=0 mode=8", 8},
        {{"-ovupd", "-agentless"}, "flags=0 mode=5", 5},
        {{"-rescan", "-ovins", "-ovins", "-rescan"}, "flags=1 mode=7", 7},
        {{"-Rescan", "rescan", "-ovupdX", "-agentles", ""}, "flags=0 mode=0", 0},
    };
    for (const auto& [arguments, loaded, mode] : cases) {
        std::vector<std::string> all{"-n"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const pid_t pid = Start(all);
        ASSERT_TRUE(WaitForCall("StartAllModules"));
        EXPECT_TRUE(InOrder(Calls(), {"LoadModules " + loaded + "\n"}));
        EXPECT_TRUE(InOrder(Trace(), {"KEMD-MAIN: RUN MODE: " + std::to_string(mode) + "\n"}));
        EXPECT_EQ(Trace().find("smbus") != std::string::npos, mode == 0) << mode;
        Kill(pid);
    }
}

TEST_F(DaemonTest, StepsAreTracedInOrder) {
    const pid_t pid = Run({"-rescan", "-agentless", "-ovins", "-ovupd"});
    const std::string process = std::to_string(pid);
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(InOrder(
        Trace(),
        {"argv[1] = \"-n\"\n",
         "KEMD-MAIN::ParseCommandLine   : RESCAN due to -rescan\n",
         "KEMD-MAIN::ParseCommandLine   : Agentsless mode due to -agentless\n",
         "KEMD-MAIN::ParseCommandLine   : OVINS mode due to -ovins\n",
         "KEMD-MAIN::ParseCommandLine   : OVUPD mode due to -ovupd\n",
         "KEMD-MAIN: RUN MODE: 8\n",
         " kemd Version=\"",
         "\" Milestone=\"",
         "\" Built=\"2",
         "\" Start=\"",
         "KEMD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)\n",
         "KEMD-MAIN: Syslog kemd openend,\n",
         "KEMD-MAIN: kemd PID file /var/run/kemd.pid created; kemd PID = " + process + "\n",
         "KEMD-MAIN: Load extension modules ...\n",
         "SWITCH API          : Loading modules",
         "KEMD-MAIN: ... extension modules loaded\n",
         "KEMD-MAIN: Start all modules  ...\n",
         "KEMD-MAIN: ... all modules started\n",
         "KEMD-MAIN: ## Done initializing ##\n",
         "### End of initialization. ###\n",
         "### Begin of RingBuffer. ###\n",
         "KEMD-MAIN:  Waiting for signals...\n"}));
}

TEST_F(DaemonTest, WithoutTheSwitchLibraryItEnds) {
    for (const char* script : {"", "fail-query"}) {
        UseSwitch(*script == '\0' ? "missing" : "c", script);
        EXPECT_EQ(WaitForExit(Start({"-n"})), 1) << script;
        EXPECT_TRUE(InOrder(Log(), {"KEMD-MAIN: FATAL ERROR! Server Control SWITCH could not be "
                                    "loaded!\n"}));
        EXPECT_FALSE(InOrder(Calls(), {"SW_Release"}));
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile)) << script;
    }
}

TEST_F(DaemonTest, ModulesThatCannotBeLoadedDoNotEndIt) {
    for (const char* library : {"c", "throwing"}) {
        UseSwitch(library, *library == 'c' ? "fail-load" : "load");
        const pid_t pid = Run();
        EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
        EXPECT_TRUE(InOrder(Trace(), {"KEMD-MAIN: ERROR! Load extension modules FAILED!\n",
                                      "KEMD-MAIN: ## Done initializing ##\n"}));
        EXPECT_EQ(Stop(pid), 0) << library;
        EXPECT_FALSE(InOrder(Calls(), {"start"}) || InOrder(Calls(), {"StartAllModules"}));
        EXPECT_TRUE(InOrder(Calls(), {"SW_Release\n"}));
    }
}

TEST_F(DaemonTest, HostileArgumentsDoNotHarmIt) {
    std::vector<std::string> arguments(15, std::string(100'000, '%'));
    arguments.insert(arguments.begin(), {"-n", "%s%n%s%n%99999999d", "\n\n\t\x01\xff", ""});
    const pid_t pid = Start(arguments);
    ASSERT_TRUE(WaitForCall("StartAllModules"));
    EXPECT_TRUE(InOrder(Trace(), {"argv[2] = \"%s%n%s%n%99999999d\"\n", "argv[3] = \"\n\n\t"}));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile));
}

TEST_F(DaemonTest, HostileEnvironmentDoesNotHarmIt) {
    const std::string libraryPath = m_environment["LD_LIBRARY_PATH"];
    std::string value;
    while (value.size() < 4096) value += "%s%n/[EndOfFile]";
    for (const NamedValue& variable : EnvironmentSnapshot().environment) {
        if (variable.name != nullptr) m_environment[variable.name] = value;
    }
    m_environment["LD_LIBRARY_PATH"] = libraryPath;
    // First with trace settings to match, then with working ones: the header shows the others.
    for (const bool traced : {false, true}) {
        if (traced) {
            std::erase_if(m_environment,
                          [](const auto& pair) { return pair.first.starts_with("OV_LOG_"); });
        }
        const pid_t pid = Start({"-n"});
        ASSERT_TRUE(WaitForCall("StartAllModules"));
        EXPECT_EQ(static_cast<bool>(InOrder(Trace(), {"OV_OS=%s%n/[EndOfFile]%s%n"})), traced);
        EXPECT_EQ(Stop(pid), 0) << traced;
    }
}

}  // namespace
