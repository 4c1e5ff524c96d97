// network.so in the real daemon, with links that are lost and come back.
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"
#include "tests/modules.h"
#include "tests/network/network_world.h"

namespace {

class NetworkModuleTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        ASSERT_TRUE(
            Ip("link add p0 type veth peer name x0\nlink add p1 type veth peer name x1\n"
               "link set p0 addrgenmode none\nlink set p0 up\nlink set x0 up"))
            << ReadFile("/tmp/ip.out");
        std::filesystem::remove_all("/etc/kemd");
        ClearModules();
        AddModule("/build/modules/network/network.so");
        UseSwitch("reference");
        WriteFile("/etc/orvmon/registry", "[HKEY_LOCAL_MACHINE]\n\n\n\n");
        m_environment["OV_MODULE_DIR"] = kModules;
    }
    static void Configure(const std::string& settings) {
        WriteFile("/etc/kemd/modules.d/network.ini", "[Settings]\nInterfaces = p*\n" + settings);
    }
    [[nodiscard]] bool Traces(const std::string& text) const {
        return WaitFor([&] { return Contains(Trace(), text); });
    }
    static std::string Health() {
        const std::string shown = Ctl("modules show network").out;
        const size_t start = shown.find("health:");
        return start == shown.npos ? shown : shown.substr(start, shown.find('\n', start) - start);
    }
};

TEST_F(NetworkModuleTest, LinksAreLostAndComeBack) {
    Configure("Expected = p1\n");
    const pid_t pid = Run();
    EXPECT_EQ(Health(), "health:       ok");
    const struct {
        const char* commands;
        const char* trace;
        const char* health;
    } steps[] = {
        {"link set x0 down", "p0: link lost after at least ", "warning: no link: p0"},
        {"link set x0 up", "p0: link is back after ", "ok"},
        {"addr add 192.0.2.1/24 dev p0", "p0: address 192.0.2.1/24 added", "ok"},
        {"addr del 192.0.2.1/24 dev p0", "p0: address 192.0.2.1/24 removed", "ok"},
        {"link set p1 up", "p1: switched on", "warning: no link: p1"},
        {"link set p1 down", "p1: switched off", "ok"},
        {"link set p1 name p2", "p2: renamed, was p1", "ok"},
        {"link set x0 down", "p0: link lost after ", "warning: no link: p0"},
        {"link add p3 type bridge", "p3: added", "warning: no link: p0"},
        {"link del p3", "p3: removed", "warning: no link: p0"},
    };
    for (const auto& [commands, trace, health] : steps) {
        ASSERT_TRUE(Ip(commands)) << ReadFile("/tmp/ip.out");
        EXPECT_TRUE(Traces(trace)) << commands << Trace();
        EXPECT_TRUE(WaitFor([&] { return Health() == std::string("health:       ") + health; }))
            << commands << Health();
    }
    EXPECT_TRUE(
        InOrder(Ctl("modules request network list").out,
                {"p0 down for ", ", 3 link changes\n", "p2 off for ", ", 0 link changes\n"}));
    // A cable that was taken out for good.
    EXPECT_EQ(Ctl("modules request network 'forget p0'").code, 0);
    EXPECT_EQ(Health(), "health:       ok");
    EXPECT_EQ(Ctl("modules request network 'forget p9'").code, 2);
    EXPECT_EQ(Ctl("modules request network nonsense").code, 2);
    const std::string trace = Trace();
    EXPECT_EQ(trace.find("192.0.2.1/24 removed"), trace.rfind("192.0.2.1/24"));
    EXPECT_FALSE(Contains(Trace(), "x0:"));
    EXPECT_FALSE(Contains(Trace(), "lo:"));
    EXPECT_EQ(Stop(pid), 0);
}

// A tap is the interface whose speed can be set.
TEST_F(NetworkModuleTest, SpeedAndDuplexAreTraced) {
    const UniqueFd tap(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    if (tap.Get() < 0) GTEST_SKIP() << "not run, there is no /dev/net/tun";
    ifreq request{};
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    std::strcpy(request.ifr_name, "p5");
    ASSERT_EQ(ioctl(tap.Get(), TUNSETIFF, &request), 0);
    ASSERT_TRUE(Ip("link set p5 up"));
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto set = [&](uint32_t speed, uint8_t duplex) {
        ethtool_cmd command{};
        command.cmd = ETHTOOL_SSET;
        ethtool_cmd_speed_set(&command, speed);
        command.duplex = duplex;
        request.ifr_data = reinterpret_cast<char*>(&command);
        return ioctl(socket.Get(), SIOCETHTOOL, &request) == 0;
    };
    ASSERT_TRUE(set(1000, DUPLEX_FULL));
    Configure("");
    pid_t pid = Run();
    ASSERT_TRUE(set(100, DUPLEX_HALF));
    EXPECT_TRUE(Traces("p5: duplex half (was full)"));
    EXPECT_TRUE(Contains(Trace(), "p5: speed 100 Mbit/s (was 1000 Mbit/s)")) << Trace();
    EXPECT_EQ(Stop(pid), 0);
    ASSERT_TRUE(set(10, DUPLEX_HALF));
    pid = Run();
    EXPECT_TRUE(Contains(Trace(), "p5: speed 10 Mbit/s since the last run (was 100 Mbit/s)"));
    EXPECT_FALSE(Contains(Trace(), "p5: duplex"));
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(NetworkModuleTest, FlappingIsSummarised) {
    Configure("FlapChanges = 4\nFlapTime = 1s\n");
    const pid_t pid = Run();
    // Until it is noticed: the kernel may report some together, and a slow machine too few at a
    // time.
    EXPECT_TRUE(WaitFor([&] {
        EXPECT_TRUE(Ip("link set x0 down"));
        EXPECT_TRUE(Ip("link set x0 up"));
        return Contains(Trace(), "p0: flapping, ");
    }));
    EXPECT_EQ(Health(), "health:       warning: flapping: p0");
    EXPECT_TRUE(Traces("p0: stable again, with a link, after ")) << Trace();
    EXPECT_EQ(Health(), "health:       ok");
    const std::string trace = Trace();
    const size_t begin = trace.find("p0: flapping, ");
    const std::string during = trace.substr(begin, trace.find("p0: stable again") - begin);
    EXPECT_FALSE(Contains(during, "p0: link")) << during;
    EXPECT_EQ(Stop(pid), 0);
}

// Nothing of it is lost, though the kernel reports it faster than it is read.
TEST_F(NetworkModuleTest, CountsWhatItCouldNotRead) {
    Configure("FlapChanges = 100000\n");
    const pid_t pid = Run();
    ASSERT_EQ(kill(pid, SIGSTOP), 0);
    std::string commands;
    for (int i = 0; i < 3000; ++i) commands += "link set x0 down\nlink set x0 up\n";
    EXPECT_TRUE(Ip(commands + "link set p1 name p2"));
    ASSERT_EQ(kill(pid, SIGCONT), 0);
    EXPECT_TRUE(Traces("p2: renamed, was p1"));
    EXPECT_TRUE(Contains(Ctl("modules request network list").out, ", 6000 link changes\n"))
        << Ctl("modules request network list").out;
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(NetworkModuleTest, SaysWhatIsDifferentSinceTheLastRun) {
    Configure("");
    ASSERT_TRUE(Ip("link add p=] type veth peer name x2"));
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_FALSE(Contains(Trace(), "since the last run"));
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_FALSE(Contains(Trace(), "since the last run")) << Trace();
    ASSERT_TRUE(
        Ip("link set x0 down\nlink del p1\nlink add p4 type bridge\nlink del x2\n"
           "link set p0 address 02:00:00:00:00:07"))
        << ReadFile("/tmp/ip.out");
    const pid_t pid = Run();
    for (const char* const line :
         {"p0: state down since the last run (was up)", "p1: absent since the last run",
          "p0: MAC 02:00:00:00:00:07 since the last run", "p4: new since the last run",
          "p=]: absent since the last run"}) {
        EXPECT_TRUE(Contains(Trace(), line)) << line << Trace();
    }
    EXPECT_EQ(Health(), "health:       warning: no link: p0");
    // Also without a stop: what is different is kept soon.
    Kill(pid);
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_FALSE(Contains(Trace(), "since the last run")) << Trace();
}

// It does its work, and says once that it cannot keep the state.
TEST_F(NetworkModuleTest, WorksWithoutTheRegistry) {
    Configure("");
    std::filesystem::remove("/etc/orvmon/registry");
    std::filesystem::create_directories("/etc/orvmon/registry");
    const pid_t pid = Run();
    EXPECT_TRUE(Traces("cannot keep the state of the interfaces in the registry: "));
    ASSERT_TRUE(Ip("link set x0 down"));
    EXPECT_TRUE(Traces("p0: link lost after at least "));
    EXPECT_EQ(Stop(pid), 0);
    const std::string trace = Trace();
    EXPECT_EQ(trace.find("cannot keep"), trace.rfind("cannot keep")) << trace;
}

// It can only read the registry then, says so once, and does its work as an ordinary user.
TEST_F(NetworkModuleTest, WorksInAProcessOfItsOwn) {
    Configure("");
    EXPECT_EQ(Stop(Run()), 0);
    std::filesystem::create_symlink("/build/bin/kemd-module-host", "/usr/bin/kemd-module-host");
    WriteFile("/etc/passwd", "nobody:x:65534:65534::/:/bin/false\n");
    // An ordinary user who runs the tests has no other user to become.
    const bool hasUsers = Contains(ReadFile("/proc/self/uid_map"), "4294967295");
    Configure(std::string("[Module]\nIsolated = yes\n") + (hasUsers ? "User = nobody\n" : ""));
    ASSERT_TRUE(Ip("link set x0 down\nlink del p1"));
    const pid_t pid = Run();
    EXPECT_TRUE(Contains(Ctl("modules show network").out, ", its own\n"));
    EXPECT_EQ(Health(), "health:       warning: no link: p0");
    ASSERT_TRUE(Ip("link set x0 up\naddr add 192.0.2.1/24 dev p0"));
    EXPECT_TRUE(Traces("p0: address 192.0.2.1/24 added"));
    EXPECT_EQ(Ctl("modules request network 'forget p0'").code, 0);
    EXPECT_EQ(Stop(pid), 0);
    const std::string trace = Trace();
    EXPECT_TRUE(InOrder(trace, {"p1: absent since the last run", "(with Isolated = yes it can only",
                                "p0: link is back after at least "}))
        << trace;
    EXPECT_EQ(trace.find("cannot keep"), trace.rfind("cannot keep")) << trace;
}

}  // namespace
