// From the command line to the started modules, and what the init system learns about it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>

#include "base/unique_fd.h"
#include "base/version.h"
#include "tests/daemon/daemon_test.h"

namespace {

namespace fs = std::filesystem;

std::string ProcFile(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

class StartupTest : public DaemonTest {
  protected:
    // As the init system or the system's log. In NOTIFY_SOCKET "@" stands for a NUL.
    void Listen(std::string name) {
        m_environment["NOTIFY_SOCKET"] = name;
        if (name[0] == '@') name[0] = '\0';
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof(address.sun_path));
        m_socket.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    }
    // The next datagram; empty when there is none.
    std::string Receive(int flags = MSG_DONTWAIT) const {
        char text[256]{};
        return recv(m_socket.Get(), text, sizeof(text) - 1, flags) > 0 ? text : "";
    }

  private:
    UniqueFd m_socket;
};

TEST_F(StartupTest, OnlyRootMayStartIt) {
    fs::permissions("/usr", fs::perms(0755));  // the sandbox made it for root alone
    const auto user = [] { _exit(setuid(1) == 0 && access("/build/bin/kemd", X_OK) == 0 ? 0 : 1); };
    if (WaitForExit(Start({}, user)) != 0) GTEST_SKIP() << "no other user can start it here";
    // It answers only the sole argument.
    EXPECT_EQ(WaitForExit(Start({"--help", "-n"}, [] { (void)!setuid(1); })), 1);
    EXPECT_EQ(Complaints(), "/build/bin/kemd: KEMD-MAIN: Error! Permission denied\n");
    EXPECT_EQ(WaitForExit(Start({"--version"}, [] { (void)!setuid(1); })), 0);
    EXPECT_FALSE(fs::exists(kLockFile));
}

TEST_F(StartupTest, QuestionsAreAnsweredBeforeAnythingIsTouched) {
    for (const auto& [question, answer] :
         {std::pair<std::string, std::string>{
              "--help", "usage: kemd [-n | -nodemon] [-rescan] [-agentless | -ovins | -ovupd]\n"},
          {"--version", std::string("kemd ") + kPackageVersion + "\n"}}) {
        const auto toFile = [] { dup2(creat("/tmp/answer", 0644), STDOUT_FILENO); };
        EXPECT_EQ(WaitForExit(Start({question}, toFile)), 0);
        EXPECT_TRUE(ReadFile("/tmp/answer").starts_with(answer)) << ReadFile("/tmp/answer");
        const auto toFullDisk = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
        EXPECT_EQ(WaitForExit(Start({question}, toFullDisk)), 1) << question;
        EXPECT_EQ(Complaints(), "/build/bin/kemd: standard output: No space left on device\n");
    }
    EXPECT_FALSE(fs::exists(kLockFile));
}

TEST_F(StartupTest, FifoInAFilesPlaceDoesNotBlock) {
    Listen("/dev/log");
    fs::remove("/etc/orvmon/RunLevel");
    ASSERT_EQ(mkfifo(kPidFile, 0600) + mkfifo("/etc/orvmon/RunLevel", 0600), 0);
    const pid_t pid = StartAndWait({"-x", "-nodemon"});
    const std::string process = std::to_string(pid);
    const std::string failed =
        "Cannot create kemd PID file /var/run/kemd.pid for kemd PID " + process;
    EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: ERROR! " + failed + " (errno=6)!\n"));
    EXPECT_TRUE(
        InOrder(Receive(), {"<27>", " kemd[" + process + "]: " + failed + " (errno = 6)!"}));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(Contains(Log(), "KEMD-MAIN: Current RunLevel = 5\n"));
    ASSERT_EQ(mkfifo(kLockFile, 0600), 0);
    EXPECT_EQ(WaitForExit(Start({"-n"})), 1);
}

TEST_F(StartupTest, BackgroundProcessIsDetached) {
    // Only the whole switch keeps it in the foreground.
    const pid_t parent = Start({"-N", "-nn", "-nodemonX", "n"}, [] {
        umask(0);
        (void)!chdir("/tmp");
        for (int number = 1; number < SIGRTMIN; ++number) signal(number, SIG_DFL);
        for (int fd = 0; fd < 2; ++fd) close(fd);
    });
    ASSERT_EQ(WaitForExit(parent), 0);
    const pid_t daemon = PidFromFile();
    EXPECT_EQ(getsid(daemon), daemon);
    EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(parent));
    const UniqueFd lock(open(kLockFile, O_RDONLY | O_CLOEXEC));
    EXPECT_NE(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(fs::read_symlink(ProcFile(daemon, "cwd")), "/");
    EXPECT_EQ(fs::status(kPidFile).permissions(), fs::perms(0640));
    EXPECT_TRUE(InOrder(ReadFile(ProcFile(daemon, "status")),
                        {"\nUmask:\t0026\n", "\nSigBlk:\t0000000000006003\n",  // 1, 2, 14, 15
                         "SigIgn:\t0000000011001000\n"}));                     // 13, 25, 29
    int kept = 0;  // lock, log and ring, which no child of a module may inherit
    for (const auto& entry : fs::directory_iterator(ProcFile(daemon, "fd"))) {
        const std::string number = entry.path().filename();
        EXPECT_TRUE(std::stoi(number) > 2 || fs::read_symlink(entry.path()) == "/dev/null");
        if (std::stoi(number) <= 512) continue;
        const std::string info = ReadFile(ProcFile(daemon, "fdinfo/") + number);
        EXPECT_TRUE(std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8) & O_CLOEXEC);
        ++kept;
    }
    EXPECT_GE(kept, 2);
    // A second instance reports to its starter and changes nothing.
    const std::string files = ReadFile(kLockFile) + ReadFile(kPidFile);
    EXPECT_EQ(WaitForExit(Start({})), 1);
    EXPECT_EQ(Complaints(),
              "/build/bin/kemd: KEMD-MAIN: Error! Another process instance is already running!\n");
    EXPECT_EQ(ReadFile(kLockFile) + ReadFile(kPidFile), files);
}

TEST_F(StartupTest, StartIsTracedAndTheRunModeReachesTheSwitchLibrary) {
    const std::string hostile = "%s%n%99999999d";
    const struct {
        std::vector<std::string> arguments;
        std::string loaded;
        int mode;
    } cases[] = {
        {{hostile, std::string(100'000, '%')}, "flags=0 mode=0", 0},
        {{"-agentless", "-ovupd"}, "flags=0 mode=8", 8},
        {{"-Rescan", "-agentles", "-ovupd", "-agentless", ""}, "flags=0 mode=5", 5},
        {{"-rescan", "-agentless", "-ovupd", "-ovins", "-rescan"}, "flags=1 mode=7", 7},
    };
    std::string pid;
    m_environment["OV_OS"] = hostile;
    for (const auto& [arguments, loaded, mode] : cases) {
        const pid_t process = Run(arguments);
        pid = std::to_string(process);
        EXPECT_TRUE(Contains(Calls(), "LoadModules " + loaded + "\n")) << Calls();
        EXPECT_TRUE(InOrder(Trace(), {"OV_OS=" + hostile, "argv[2] = \"" + arguments[0] + "\"\n",
                                      "KEMD-MAIN: RUN MODE: " + std::to_string(mode) + "\n"}));
        EXPECT_EQ(Contains(Trace(), "smbus"), mode == 0) << mode;
        Kill(process);
    }
    const std::string parse = "KEMD-MAIN::ParseCommandLine   : ";
    EXPECT_TRUE(InOrder(
        Trace(),
        {parse + "RESCAN due to -rescan\n", parse + "Agentsless mode due to -agentless\n",
         parse + "OVUPD mode due to -ovupd\n", parse + "OVINS mode due to -ovins\n",
         " kemd Version=\"", "\" Start=\"",
         "KEMD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)\n",
         "KEMD-MAIN: Syslog kemd openend,\n",
         "KEMD-MAIN: kemd PID file /var/run/kemd.pid created; kemd PID = " + pid + "\n",
         "KEMD-MAIN: Load extension modules ...\n", "KEMD-MAIN: ... extension modules loaded\n",
         "KEMD-MAIN: Start all modules  ...\n", "KEMD-MAIN: ... all modules started\n",
         "KEMD-MAIN: ## Done initializing ##\n", "### End of initialization. ###\n",
         "### Begin of RingBuffer. ###\n", "KEMD-MAIN:  Waiting for signals...\n"}));
}

TEST_F(StartupTest, ReportsThatItIsReadyAndThatItStops) {
    for (const char* name : {"/run/notify", "@kemd/notify"}) {
        Listen(name);
        const pid_t pid = Start({"-n"});
        EXPECT_EQ(Receive(0), "READY=1\nSTATUS=Waiting for signals");
        EXPECT_TRUE(Contains(Log(), "## Done initializing ##\n"));
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_EQ(Receive(), "STOPPING=1\nSTATUS=Stopping");
        EXPECT_EQ(Receive(), "");
    }
}

TEST_F(StartupTest, ReportsInOneLineWhyTheStartFails) {
    Listen("/run/reasons");
    fs::remove("/var/log/orvmon");
    UseSwitch("missing");
    EXPECT_EQ(WaitForExit(Start({"-n"})), 1);
    std::string complaints = "/build/bin/kemd: KEMD-MAIN: started in \"No Demon\" Mode\n";
    for (const std::string reason :
         {"no trace: cannot open /var/log/orvmon/log.kemd (No such file or directory)",
          "no switch library: libswitch.so: cannot open shared object file: No such file or "
          "directory"}) {
        EXPECT_EQ(Receive(), "STATUS=" + reason + "; kemdctl check says what to do");
        complaints += "/build/bin/kemd: KEMD-MAIN: " + reason + "; kemdctl check says what to do\n";
    }
    EXPECT_EQ(Complaints(), complaints);
}

// A limit of file sizes is a full disk for every file that the daemon writes.
#ifndef __SANITIZE_THREAD__  // whose own files may not grow either: it ends before main
TEST_F(StartupTest, RunsWhereNoFileMayGrow) {
    Listen("/run/limited");
    const pid_t pid = Start({"-n"}, [] {
        const rlimit none{};
        setrlimit(RLIMIT_FSIZE, &none);
    });
    EXPECT_TRUE(Receive(0).starts_with("READY=1"));
    EXPECT_FALSE(fs::exists(kPidFile));
    EXPECT_TRUE(fs::exists(kLockFile));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_FALSE(fs::exists(kLockFile));
}
#endif

TEST_F(StartupTest, RunsOnAFullDisk) {
    m_environment["OV_LOG_RINGBUF_DIR"] = m_logDirectory = "/small";
    EXPECT_EQ(Stop(StartAndWait({"-n"})), 0);
    // The log is on the same disk, so the ring must have released its space.
    EXPECT_EQ(fs::file_size("/small/log.kemd_i"), 0u);
    EXPECT_TRUE(InOrder(
        Log(), {"### InitRingBuffer(): (2) write m_InternalDebugBuffer to /small/log.kemd_i failed",
                "KEMD-MAIN: ## Done initializing ##\n", "KEMD-MAIN: ## EXIT PROCESS KEMD ##\n"}));
}

}  // namespace
