// What the daemon reports to the init system.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>

#include "base/unique_fd.h"
#include "tests/daemon/daemon_test.h"

namespace {

class NotifyTest : public DaemonTest {
  protected:
    // In NOTIFY_SOCKET "@" stands for a NUL.
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

TEST_F(NotifyTest, ReportsThatItIsReadyAndThatItStops) {
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

TEST_F(NotifyTest, ReportsInOneLineWhyTheStartFails) {
    Listen("/run/reasons");
    std::filesystem::remove("/var/log/orvmon");
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
TEST_F(NotifyTest, RunsWhereNoFileMayGrow) {
    Listen("/run/limited");
    const pid_t pid = Start({"-n"}, [] {
        const rlimit none{};
        setrlimit(RLIMIT_FSIZE, &none);
    });
    EXPECT_TRUE(Receive(0).starts_with("READY=1"));
    EXPECT_FALSE(std::filesystem::exists(kPidFile));
    EXPECT_TRUE(std::filesystem::exists(kLockFile));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_FALSE(std::filesystem::exists(kLockFile));
}
#endif

}  // namespace
