// Changes, as they are delivered.
#include <poll.h>

#include <thread>

#include "kemd/services.h"
#include "tests/network/network_world.h"

namespace {

struct Words {
    uint32_t what;
    const char* word;
};
constexpr Words kWords[] = {
    {KEMD_NETWORK_ADDED, "added"},     {KEMD_NETWORK_REMOVED, "removed"},
    {KEMD_NETWORK_RENAMED, "renamed"}, {KEMD_NETWORK_UP, "up"},
    {KEMD_NETWORK_CARRIER, "carrier"}, {KEMD_NETWORK_ADDRESS, "address"},
    {KEMD_NETWORK_MASTER, "master"},   {KEMD_NETWORK_ROUTE, "route"},
    {KEMD_NETWORK_SPEED, "speed"},     {KEMD_NETWORK_OTHER, "other"},
};

class NetworkWatchTest : public NetworkTest {
  protected:
    void Open(uint32_t parts = KEMD_NETWORK_ALL, int nameSpace = KEMD_NETWORK_HERE) {
        KemdNetworkWatch* opened = nullptr;
        ASSERT_EQ(KemdNetworkWatchOpen(&opened, nameSpace, parts, OnChange, this), 0);
        watch.reset(opened);
    }
    // Delivers until this line was among the changes.
    [[nodiscard]] bool Sees(const std::string& line) {
        while (lines.find(line + "\n") == std::string::npos) {
            if (KemdNetworkWatchWait(watch.get(), 20000) != 0) return false;
        }
        return true;
    }

    NetworkWatchHandle watch;
    std::string lines;  // "NAME BEFORE > AFTER: WHAT"
    size_t calls = 0;

  private:
    static std::string State(InterfaceView interface) {
        if (!interface) return "-";
        const bool isUp = (*interface.Number(KEMD_NET_FLAGS) & 1) != 0;
        return interface.TextOr(KEMD_NET_NAME) + (isUp ? " up " : " down ") +
               std::to_string(interface.Addresses().size());
    }
    static void OnChange(void* user, const KemdNetworkChange* change) {
        auto& test = *static_cast<NetworkWatchTest*>(user);
        std::string line = State(change->before) + " > " + State(change->after) + ":";
        for (const auto& [what, word] : kWords) {
            if ((change->what & what) != 0) line += std::string(" ") + word;
        }
        if (change->routeBefore != nullptr) {
            line += " from " + std::to_string(change->routeBefore->metric);
        }
        if (change->routeAfter != nullptr) {
            line += " to " + std::to_string(change->routeAfter->gateway[3]);
        }
        EXPECT_EQ(change->size, sizeof *change);
        EXPECT_GT(change->time, INT64_C(1500000000) * 1000000000);
        test.lines += line + "\n";
        ++test.calls;
    }
};

TEST_F(NetworkWatchTest, EachChangeWithBeforeAndAfter) {
    ASSERT_TRUE(
        Ip("link add b0 type bridge\nlink add p0 type veth peer name p1\n"
           "link set p0 addrgenmode none\nlink set p1 addrgenmode none"));
    Open();
    EXPECT_EQ(KemdNetworkWatchWait(watch.get(), 0), ETIMEDOUT);
    const struct {
        const char* command;
        const char* line;
    } steps[] = {
        {"link add n0 type veth peer name n1", "- > n0 down 0: added"},
        {"link set p0 up", "p0 down 0 > p0 up 0: up carrier other"},
        {"link set p1 up", "p0 up 0 > p0 up 0: carrier"},
        {"addr add 192.0.2.1/24 dev p0", "p0 up 0 > p0 up 1: address"},
        {"route add default via 192.0.2.2 metric 5", "- > p0 up 1: route to 2"},
        {"route replace default via 192.0.2.3 metric 5", "p0 up 1 > p0 up 1: route from 5 to 3"},
        // The kernel does not report routes that go with the last address or with their next hop.
        {"addr del 192.0.2.1/24 dev p0", "p0 up 0 > -: route from 5"},
        {"addr add 192.0.2.1/24 dev p0", "p0 up 0 > p0 up 1: address"},
        {"nexthop add id 5 via 192.0.2.9 dev p0\nroute add default nhid 5 metric 5",
         "- > p0 up 1: route to 9"},
        {"nexthop del id 5", "p0 up 1 > -: route from 5"},
        {"route add default via 192.0.2.3 metric 5", "- > p0 up 1: route to 3"},
        {"link set p0 master b0", "p0 up 1 > p0 up 1: master other"},
        {"link set p0 nomaster", "p0 up 1 > p0 up 1: master other"},
        {"link property add dev p0 altname second", "p0 up 1 > p0 up 1: other"},
        // The kernel reports neither the routes of an interface that goes down ...
        {"link set p0 down", "p0 down 1 > -: route from 5"},
        {"link set p0 name q0", "p0 down 1 > q0 down 1: renamed"},
        {"addr del 192.0.2.1/24 dev q0", "q0 down 1 > q0 down 0: address"},
        {"link del q0", "q0 down 0 > -: removed"},
    };
    for (const auto& [command, line] : steps) {
        lines.clear();
        ASSERT_TRUE(Ip(command)) << ReadFile("/tmp/ip.out");
        EXPECT_TRUE(Sees(line)) << command << "\n" << lines;
    }
    // Nothing is delivered twice, or for nothing.
    EXPECT_EQ(KemdNetworkWatchWait(watch.get(), 0), ETIMEDOUT) << lines;
    KemdNetworkSnapshot* state = nullptr;
    ASSERT_EQ(KemdNetworkWatchSnapshot(watch.get(), &state), 0);
    const NetworkView view(state);
    EXPECT_FALSE(view.ByName("q0"));
    EXPECT_EQ(view.ByName("n0").TextOr(KEMD_NET_DRIVER), "veth");
    EXPECT_TRUE(view.Routes().empty());
}

TEST_F(NetworkWatchTest, SpeedThatTheAdministratorSets) {
    IP_OR_SKIP("tuntap add t0 mode tap user 0");
    Open();
    for (const char* speed : {"100", "1000"}) {
        const std::string command = std::string("/usr/sbin/ethtool -s t0 speed ") + speed;
        ASSERT_EQ(std::system((command + " duplex full autoneg off").c_str()), 0);
        lines.clear();
        EXPECT_TRUE(Sees("t0 down 0 > t0 down 0: speed")) << lines;
        KemdNetworkSnapshot* state = nullptr;
        ASSERT_EQ(KemdNetworkWatchSnapshot(watch.get(), &state), 0);
        const NetworkView view(state);
        EXPECT_EQ(view.ByName("t0").TextOr(KEMD_NET_SPEED), speed);
        EXPECT_EQ(view.ByName("t0").TextOr(KEMD_NET_TUN_OWNER), "0");
        EXPECT_FALSE(view.ByName("t0").Number(KEMD_NET_TUN_GROUP));
    }
}

// More messages than the socket holds: the difference is delivered, so that nothing is missing.
TEST_F(NetworkWatchTest, ChangesFasterThanTheyAreRead) {
    ASSERT_TRUE(Ip("link add p0 type veth peer name p1\nlink add old type veth peer name old1"));
    Open(KEMD_NETWORK_ADDRESSES);
    // Their order in the state is not the kernel's, which is no change.
    for (const char* address : {"2001:db8::1/64 nodad", "192.0.2.9/24"}) {
        ASSERT_TRUE(Ip(std::string("addr add ") + address + " dev p1"));
        ASSERT_EQ(KemdNetworkWatchWait(watch.get(), 20000), 0);
    }
    lines.clear();
    constexpr size_t kFlaps = 6000;
    std::string commands = "link del old\nlink add new type veth peer name new1\n";
    for (size_t i = 0; i < kFlaps; ++i) commands += "link set p0 up\nlink set p0 down\n";
    commands += "link set p0 name q0\naddr add 192.0.2.1/24 dev q0";
    ASSERT_TRUE(Ip(commands)) << ReadFile("/tmp/ip.out");
    while (KemdNetworkWatchWait(watch.get(), 0) == 0) continue;
    for (const char* line : {"p0 down 0 > q0 down 1: renamed address other",
                             "old down 0 > -: removed", "- > new down 0: added"}) {
        EXPECT_TRUE(Contains(lines, line)) << lines.substr(0, 2000);
    }
    EXPECT_LT(calls, kFlaps);
    EXPECT_FALSE(Contains(lines, "p1 down 2 > p1 down 2")) << lines.substr(0, 2000);
}

// Nothing but the watch holds the name space in the end: it goes on.
TEST_F(NetworkWatchTest, StopsAndPollsInAnotherNameSpace) {
    UniqueFd watched = NameSpace();
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    const std::string here = std::to_string(gettid());
    Open(KEMD_NETWORK_ALL, watched.Get());
    const auto isReadable = [&] {
        pollfd descriptor = {KemdNetworkWatchDescriptor(watch.get()), POLLIN, 0};
        return poll(&descriptor, 1, 0) == 1;
    };
    EXPECT_FALSE(isReadable());
    std::thread([&] {
        ASSERT_EQ(setns(watched.Get(), CLONE_NEWNET), 0);
        EXPECT_TRUE(Ip("link add p0 type veth peer name p1 netns " + here));
    }).join();
    EXPECT_TRUE(isReadable());
    EXPECT_TRUE(Sees("- > p0 down 0: added")) << lines;
    watched.Reset();
    ASSERT_TRUE(Ip("link set p1 up\nlink del p1\nlink add p2 type veth peer name p3"));
    EXPECT_TRUE(Sees("p0 down 0 > -: removed")) << lines;
    EXPECT_FALSE(Contains(lines, "p2")) << lines;
    std::thread stopper([&] { EXPECT_EQ(KemdNetworkWatchStop(watch.get()), 0); });
    int result = 0;
    do result = KemdNetworkWatchWait(watch.get(), KEMD_WAIT_FOREVER);
    while (result == 0);
    stopper.join();
    EXPECT_EQ(result, ECANCELED);
    EXPECT_EQ(KemdNetworkWatchWait(watch.get(), KEMD_WAIT_FOREVER), ECANCELED);
}

}  // namespace
