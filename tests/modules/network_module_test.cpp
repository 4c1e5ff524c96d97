// network.so in the real daemon, with links that are lost and come back.
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

}  // namespace
