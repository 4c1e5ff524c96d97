// From the command line to the started modules.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "base/unique_fd.h"
#include "base/version.h"
#include "tests/daemon/daemon_test.h"
#include "trace/header.h"

namespace {

namespace fs = std::filesystem;

std::string ProcFile(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

TEST_F(DaemonTest, OnlyRootMayStartIt) {
    fs::permissions("/usr", fs::perms(0755));  // the sandbox made it for root alone
    const auto canStart = [] {
        _exit(setuid(1) == 0 && access("/build/bin/kemd", X_OK) == 0 ? 0 : 1);
    };
    if (WaitForExit(Start({}, canStart)) != 0) GTEST_SKIP() << "no other user can start it here";
    const auto user = [] { (void)!setuid(1); };
    EXPECT_EQ(WaitForExit(Start({"--version"}, user)), 0);
    // It answers only the sole argument.
    for (const auto& arguments : {std::vector<std::string>{"-n"}, {"--help", "-n"}, {"--help="}}) {
        EXPECT_EQ(WaitForExit(Start(arguments, user)), 1);
        EXPECT_EQ(Complaints(), "/build/bin/kemd: KEMD-MAIN: Error! Permission denied\n");
    }
    EXPECT_FALSE(fs::exists(kLockFile));
}

TEST_F(DaemonTest, QuestionsAreAnsweredBeforeAnythingIsTouched) {
    const struct {
        const char* question;
        std::string answer;
    } cases[] = {
        {"--help", "usage: kemd [-n | -nodemon] [-rescan] [-agentless | -ovins | -ovupd]\n"},
        {"--version", std::string("kemd ") + kPackageVersion + "\n"}};
    for (const auto& [question, answer] : cases) {
        const pid_t answering = Start({question}, [] {
            dup2(open("/tmp/answer", O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        });
        EXPECT_EQ(WaitForExit(answering), 0) << question;
        EXPECT_TRUE(ReadFile("/tmp/answer").starts_with(answer)) << ReadFile("/tmp/answer");
        const auto full = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
        EXPECT_EQ(WaitForExit(Start({question}, full)), 1) << question;
        EXPECT_EQ(Complaints(), "/build/bin/kemd: standard output: No space left on device\n");
    }
    EXPECT_FALSE(fs::exists(kLockFile));
}

TEST_F(DaemonTest, SecondInstanceReportsToItsStarter) {
    const std::string first = std::to_string(StartAndWait({"-n"}));
    EXPECT_EQ(WaitForExit(Start({})), 1);
    EXPECT_EQ(Complaints(),
              "/build/bin/kemd: KEMD-MAIN: Error! Another process instance is already running!\n");
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + first);
    EXPECT_EQ(ReadFile(kPidFile), first + "\n");
    EXPECT_EQ(Calls(), "");
}

TEST_F(DaemonTest, FifoInAFilesPlaceDoesNotBlock) {
    sockaddr_un address{AF_UNIX, "/dev/log"};
    const UniqueFd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(log.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    fs::remove("/etc/orvmon/RunLevel");
    ASSERT_EQ(mkfifo(kPidFile, 0600) + mkfifo("/etc/orvmon/RunLevel", 0600), 0);
    const pid_t pid = StartAndWait({"-n"});
    const std::string process = std::to_string(pid);
    const std::string failed =
        "Cannot create kemd PID file /var/run/kemd.pid for kemd PID " + process;
    EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: ERROR! " + failed + " (errno=6)!\n"));
    char text[512]{};
    EXPECT_GT(recv(log.Get(), text, sizeof(text) - 1, MSG_DONTWAIT), 0);
    EXPECT_TRUE(InOrder(text, {"<27>", " kemd[" + process + "]: " + failed + " (errno = 6)!"}));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(Contains(Log(), "KEMD-MAIN: Current RunLevel = 5\n"));
    ASSERT_EQ(mkfifo(kLockFile, 0600), 0);
    EXPECT_EQ(WaitForExit(Start({"-n"})), 1);
    EXPECT_TRUE(Contains(Complaints(), "Another process instance is already running!\n"));
}

TEST_F(DaemonTest, OnlyTheWholeSwitchKeepsItInTheForeground) {
    const struct {
        std::vector<std::string> arguments;
        bool foreground;
    } cases[] = {{{"-n"}, true},  {{"-nodemon"}, true}, {{"-x", "-rescan", "-nodemon"}, true},
                 {{"-N"}, false}, {{"-nn"}, false},     {{"-nodemonX", "-nodemo", "n"}, false}};
    for (const auto& [arguments, foreground] : cases) {
        fs::remove(kPidFile);
        const pid_t started = Start(arguments, [] { dup2(STDERR_FILENO, STDOUT_FILENO); });
        const pid_t daemon = PidFromFile();
        EXPECT_EQ(daemon == started, foreground) << arguments[0];
        EXPECT_EQ(Complaints(),
                  foreground ? "/build/bin/kemd: KEMD-MAIN: started in \"No Demon\" Mode\n" : "");
        const std::string stream = foreground ? "/tmp/stderr" : "/dev/null";
        EXPECT_EQ(fs::read_symlink(ProcFile(daemon, "fd/1")), stream) << arguments[0];
        EXPECT_EQ(fs::read_symlink(ProcFile(daemon, "fd/2")), stream) << arguments[0];
        EXPECT_EQ(foreground ? 0 : WaitForExit(started), 0) << arguments[0];
        Kill(daemon);
    }
}

TEST_F(DaemonTest, BackgroundProcessIsDetached) {
    const pid_t parent = Start({}, [] {
        umask(0);
        (void)!chdir("/tmp");
        for (int number = 1; number < SIGRTMIN; ++number) signal(number, SIG_DFL);
        for (int fd = 0; fd < 2; ++fd) close(fd);
    });
    ASSERT_EQ(WaitForExit(parent), 0);
    const pid_t daemon = PidFromFile();
    EXPECT_EQ(getsid(daemon), daemon);
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(parent));
    const int lock = open(kLockFile, O_RDONLY | O_CLOEXEC);
    EXPECT_NE(flock(lock, LOCK_EX | LOCK_NB), 0);
    close(lock);
    EXPECT_EQ(fs::read_symlink(ProcFile(daemon, "cwd")), "/");
    EXPECT_EQ(fs::status(kPidFile).permissions(), fs::perms(0640));
    EXPECT_TRUE(InOrder(ReadFile(ProcFile(daemon, "status")),
                        {"\nUmask:\t0026\n", "\nSigBlk:\t0000000000006003\n",  // 1, 2, 14, 15
                         "SigIgn:\t0000000011001000\n"}));                     // 13, 25, 29
    for (const char* fd : {"fd/0", "fd/1", "fd/2"}) {
        EXPECT_EQ(fs::read_symlink(ProcFile(daemon, fd)), "/dev/null");
    }
    int kept = 0;  // lock, log and ring, which no child of a module may inherit
    for (const auto& entry : fs::directory_iterator(ProcFile(daemon, "fd"))) {
        const std::string number = entry.path().filename().string();
        if (std::stoi(number) <= 512) continue;
        const std::string info = ReadFile(ProcFile(daemon, "fdinfo/") + number);
        EXPECT_TRUE(std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8) & O_CLOEXEC);
        ++kept;
    }
    EXPECT_GE(kept, 2);
}

TEST_F(DaemonTest, RunModeReachesTheSwitchLibrary) {
    const struct {
        std::vector<std::string> arguments;
        std::string loaded;
        int mode;
    } cases[] = {
        {{}, "flags=0 mode=0", 0},
        {{"-agentless", "-ovupd"}, "flags=0 mode=8", 8},
        {{"-ovupd", "-agentless"}, "flags=0 mode=5", 5},
        {{"-Rescan", "rescan", "-ovupdX", "-agentles", ""}, "flags=0 mode=0", 0},
        {{"-rescan", "-agentless", "-ovupd", "-ovins", "-rescan"}, "flags=1 mode=7", 7},
    };
    std::string pid;
    for (const auto& [arguments, loaded, mode] : cases) {
        const pid_t process = Run(arguments);
        pid = std::to_string(process);
        EXPECT_TRUE(Contains(Calls(), "LoadModules " + loaded + "\n")) << Calls();
        EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: RUN MODE: " + std::to_string(mode) + "\n"));
        EXPECT_EQ(Contains(Trace(), "smbus"), mode == 0) << mode;
        Kill(process);
    }
    const std::string parse = "KEMD-MAIN::ParseCommandLine   : ";
    const std::string file = "KEMD-MAIN: kemd PID file /var/run/kemd.pid created; kemd PID = ";
    EXPECT_TRUE(InOrder(
        Trace(),
        {"argv[1] = \"-n\"\n",
         parse + "RESCAN due to -rescan\n",
         parse + "Agentsless mode due to -agentless\n",
         parse + "OVUPD mode due to -ovupd\n",
         parse + "OVINS mode due to -ovins\n",
         "KEMD-MAIN: RUN MODE: 7\n",
         " kemd Version=\"",
         "\" Milestone=\"",
         "\" Built=\"2",
         "\" Start=\"",
         "KEMD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)\n",
         "KEMD-MAIN: Syslog kemd openend,\n",
         file + pid + "\n",
         "KEMD-MAIN: Load extension modules ...\n",
         "KEMD-MAIN: ... extension modules loaded\n",
         "KEMD-MAIN: Start all modules  ...\n",
         "KEMD-MAIN: ... all modules started\n",
         "KEMD-MAIN: ## Done initializing ##\n",
         "### End of initialization. ###\n",
         "### Begin of RingBuffer. ###\n",
         "KEMD-MAIN:  Waiting for signals...\n"}));
}

TEST_F(DaemonTest, HostileArgumentsAndEnvironmentDoNotHarmIt) {
    std::vector<std::string> arguments{"-n", "%s%n%s%n%99999999d", "\n\n\t\x01\xff", ""};
    arguments.insert(arguments.end(), 13, std::string(100'000, '%'));
    std::string value;
    while (value.size() < 4096) value += "%s%n/[EndOfFile]";
    m_environment.erase("OV_NICKNAME");
    // First with hostile trace settings too, then with working ones: the header shows the others.
    for (const bool traced : {false, true}) {
        for (const NamedValue& variable : EnvironmentSnapshot().environment) {
            const std::string name = variable.name != nullptr ? variable.name : "OV_OS";
            m_environment.emplace(name, value);
            if (traced && name.starts_with("OV_LOG")) m_environment.erase(name);
        }
        const pid_t pid = StartAndWait(arguments);
        EXPECT_EQ(Contains(Trace(), "OV_OS=%s%n/[EndOfFile]%s%n"), traced);
        EXPECT_EQ(Contains(Trace(), "argv[2] = \"%s%n%s%n%99999999d\"\n"), traced);
        EXPECT_EQ(Stop(pid), 0) << traced;
    }
}

}  // namespace
