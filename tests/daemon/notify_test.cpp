// What the daemon reports to the init system.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>

#include "tests/daemon/daemon_test.h"

namespace {

namespace fs = std::filesystem;

class InitSystem {
  public:
    // In NOTIFY_SOCKET "@" stands for a NUL.
    explicit InitSystem(std::string name) {
        if (name[0] == '@') name[0] = '\0';
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof(address.sun_path));
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
                  0);
    }
    ~InitSystem() { close(m_socket); }

    // The next datagram; empty when there is none.
    std::string Receive(int flags = 0) const {
        char text[256]{};
        return recv(m_socket, text, sizeof(text) - 1, flags) > 0 ? text : "";
    }

  private:
    int m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST_F(DaemonTest, ReportsToTheInitSystemThatItIsReadyAndThatItStops) {
    for (const char* name : {"/run/notify", "@kemd/notify"}) {
        const InitSystem init(name);
        m_environment["NOTIFY_SOCKET"] = name;
        const pid_t pid = Start({"-n"});
        EXPECT_EQ(init.Receive(), "READY=1\nSTATUS=Waiting for signals");
        EXPECT_TRUE(Contains(Log(), "## Done initializing ##\n"));
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_EQ(init.Receive(MSG_DONTWAIT), "STOPPING=1\nSTATUS=Stopping");
        EXPECT_EQ(init.Receive(MSG_DONTWAIT), "");
    }
    for (const std::string name : {"/run/nothing", "relative"}) {
        m_environment["NOTIFY_SOCKET"] = name;
        const pid_t pid = Run();
        EXPECT_TRUE(WaitForLog("KEMD-MAIN: cannot send READY=1 to " + name + " ("));
        EXPECT_EQ(Stop(pid), 0);
    }
}

TEST_F(DaemonTest, ReportsInOneLineWhyTheStartFails) {
    const InitSystem init("/run/reasons");
    m_environment["NOTIFY_SOCKET"] = "/run/reasons";
    fs::remove("/var/log/orvmon");
    UseSwitch("missing");
    EXPECT_EQ(WaitForExit(Start({"-n"})), 1);
    std::string reported = "/build/bin/kemd: KEMD-MAIN: started in \"No Demon\" Mode\n";
    for (
        const std::string reason :
        {"no trace: cannot open /var/log/orvmon/log.kemd (No such file or directory); kemdctl check "
         "says what to do",
         "no switch library: libswitch.so: cannot open shared object file: No such file or "
         "directory; kemdctl check says what to do"}) {
        EXPECT_EQ(init.Receive(MSG_DONTWAIT), "STATUS=" + reason);
        reported += "/build/bin/kemd: KEMD-MAIN: " + reason + "\n";
    }
    EXPECT_EQ(Complaints(), reported);
}

// A limit of file sizes is a full disk for every file that the daemon writes.
#ifndef __SANITIZE_THREAD__  // whose own files may not grow either: it ends before main
TEST_F(DaemonTest, RunsWhereNoFileMayGrow) {
    const InitSystem init("/run/limited");
    m_environment["NOTIFY_SOCKET"] = "/run/limited";
    const pid_t pid = Start({"-n"}, [] {
        const rlimit none{};
        setrlimit(RLIMIT_FSIZE, &none);
    });
    EXPECT_TRUE(init.Receive().starts_with("READY=1"));
    EXPECT_FALSE(fs::exists(kPidFile));
    EXPECT_TRUE(fs::exists(kLockFile));
    EXPECT_EQ(Log(), "");
    EXPECT_FALSE(fs::exists(m_logDirectory + "/log.kemd_a"));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_FALSE(fs::exists(kLockFile));
}
#endif

}  // namespace
