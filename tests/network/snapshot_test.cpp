// Snapshots of interfaces that the kernel really has.
#include <linux/capability.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "network/name_space.h"
#include "network/netlink_socket.h"
#include "tests/network/network_world.h"

static std::atomic<bool> isGenericRefused{false};
static std::atomic<int> interruptions{0};  // of dumps
static std::atomic<bool> isOverflowing{false};
static std::atomic<bool> isDriverFailing{false};

// Before libc's: a kernel without generic netlink.
extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (isGenericRefused && domain == AF_NETLINK && protocol == NETLINK_GENERIC) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

// Before libc's: a kernel whose tables change during a dump, or that loses a message.
extern "C" ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                            socklen_t* fromSize) {
    const ssize_t received = syscall(SYS_recvfrom, fd, buffer, size, flags, from, fromSize);
    nlmsghdr header{};
    if (received < static_cast<ssize_t>(sizeof header)) return received;
    memcpy(&header, buffer, sizeof header);
    if ((header.nlmsg_flags & NLM_F_MULTI) == 0) return received;
    if (isOverflowing.exchange(false)) {
        errno = ENOBUFS;
        return -1;
    }
    if (interruptions > 0) {
        --interruptions;
        header.nlmsg_flags |= NLM_F_DUMP_INTR;
    }
    // The answers of ethtool, where the links are all that rtnetlink is asked for.
    if (isDriverFailing && header.nlmsg_type > RTM_NEWLINK) {
        const int error = -ENODEV;
        header.nlmsg_type = NLMSG_DONE;
        memcpy(static_cast<char*>(buffer) + sizeof header, &error, sizeof error);
    }
    memcpy(buffer, &header, sizeof header);
    return received;
}

namespace {

// The calling thread has no rights any more.
void DropRights() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
}

TEST_F(NetworkTest, NamesAreTheKernelsBytes) {
    const std::string longName(127, 'n');
    const std::string strange = "\xff\xfe\x80";
    ASSERT_TRUE(
        Ip("link add p0 type veth peer name p1\nlink add b0 type bridge\n"
           "link set p0 name " +
           strange +
           "\nlink set p1 master b0\n"
           "link property add dev p1 altname " +
           longName + " altname second\naddr add 192.0.2.1/24 dev p1"));
    const NetworkView view = Take(KEMD_NETWORK_ADDRESSES);
    const InterfaceView port = view.ByName(longName.c_str());
    ASSERT_TRUE(port);
    EXPECT_EQ(port.List(KEMD_NETWORK_ALTERNATIVE_NAMES),
              (std::vector<std::string>{longName, "second"}));
    EXPECT_EQ(view.ByName(strange.c_str()).TextOr(KEMD_NET_NAME), strange);
    EXPECT_EQ(KemdNetworkByName(view.Get(), "absent"), nullptr);
    const uint64_t bridge = view.ByName("b0").Number(KEMD_NET_INDEX).value();
    EXPECT_EQ(KemdNetworkMemberAt(view.Get(), bridge, 0), port.Get());
    EXPECT_EQ(KemdNetworkMemberAt(view.Get(), bridge, 1), nullptr);

    // The contract of buffers, kinds and parts.
    char text[4];
    size_t size = sizeof text;
    EXPECT_EQ(KemdNetworkText(port.Get(), KEMD_NET_NAME, text, &size), 0);
    EXPECT_STREQ(text, "p1");
    EXPECT_EQ(size, 3U);
    size = 2;
    EXPECT_EQ(KemdNetworkText(port.Get(), KEMD_NET_NAME, text, &size), ERANGE);
    EXPECT_EQ(size, 3U);
    uint64_t number = 0;
    EXPECT_EQ(KemdNetworkNumber(port.Get(), KEMD_NET_NAME, &number), EINVAL);
    EXPECT_EQ(KemdNetworkNumber(port.Get(), KEMD_NET_FIELDS, &number), EINVAL);
    EXPECT_EQ(KemdNetworkNumber(port.Get(), KEMD_NET_SPEED, &number), ENODATA);
    EXPECT_EQ(KemdNetworkNumber(port.Get(), KEMD_NET_VLAN_ID, &number), EOPNOTSUPP);
    KemdNetworkRoute route{};
    route.size = sizeof route;
    EXPECT_EQ(KemdNetworkRouteAt(view.Get(), 0, &route), ENODATA);

    // An older caller's shorter structure, and a newer one's longer.
    struct {
        KemdNetworkAddress address;
        char more[4];
    } newer{};
    memset(&newer, 0x55, sizeof newer);
    newer.address.size = 8;
    EXPECT_EQ(KemdNetworkAddressAt(port.Get(), 0, &newer.address), 0);
    EXPECT_TRUE(newer.address.size == 8 && newer.address.family == AF_INET);
    EXPECT_EQ(newer.address.flags, 0x55555555U);
    newer.address.size = sizeof newer;
    EXPECT_EQ(KemdNetworkAddressAt(port.Get(), 0, &newer.address), 0);
    EXPECT_EQ(newer.more[0], 0);
    newer.address.size = 0;
    EXPECT_EQ(KemdNetworkAddressAt(port.Get(), 0, &newer.address), EINVAL);
}

// 400 names of 127 characters are 52 KiB in one message.
TEST_F(NetworkTest, MessagesBeyondTheUsualBuffer) {
    std::string commands = "link add p0 type veth peer name p1\n";
    for (int i = 100; i < 500; ++i) {
        commands +=
            "link property add dev p0 altname " + std::string(124, 'x') + std::to_string(i) + "\n";
    }
    ASSERT_TRUE(Ip(commands)) << ReadFile("/tmp/ip.out");
    const NetworkView view = Take(0);
    EXPECT_EQ(view.ByName("p0").List(KEMD_NETWORK_ALTERNATIVE_NAMES).size(), 400U);
    EXPECT_TRUE(view.ByName("p1"));
}

TEST_F(NetworkTest, AnotherNameSpaceAndWithoutRights) {
    ASSERT_TRUE(Ip("link add p0 type veth peer name p1"));
    const UniqueFd first = NameSpace();
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    EXPECT_FALSE(Take().ByName("p0"));
    EXPECT_TRUE(Take().ByName("lo"));
    EXPECT_EQ(Take(KEMD_NETWORK_ALL, first.Get()).ByName("p0").TextOr(KEMD_NET_DRIVER), "veth");
    KemdNetwork* network = nullptr;
    const UniqueFd wrong(open("/tmp", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(KemdNetworkOpen(&network, wrong.Get()), EINVAL);

    // No memory there is an error here.
    EXPECT_EQ(RunInNameSpace(first.Get(), []() -> int { throw std::bad_alloc(); }), ENOMEM);

    const UniqueFd here = NameSpace();
    ASSERT_TRUE(Ip("link add p2 type veth peer name p3\nlink add p4 type veth peer name p5 netns " +
                   std::to_string(gettid()) + "\nlink set p5 up\nlink set p4 up"));
    std::thread([&] {
        int error = 0;
        KemdNetworkWatch* watch = nullptr;
        ASSERT_EQ(KemdNetworkWatchOpen(
                      &watch, KEMD_NETWORK_HERE, KEMD_NETWORK_ALL,
                      [](void* user, const KemdNetworkChange* change) {
                          uint64_t type = 0;
                          *static_cast<int*>(user) =
                              KemdNetworkNumber(change->after, KEMD_NET_MODULE_TYPE, &type);
                      },
                      &error),
                  0);
        const NetworkWatchHandle closer(watch);
        ASSERT_TRUE(Ip("link add p6 type veth peer name p7"));
        DropRights();
        EXPECT_EQ(KemdNetworkOpen(&network, first.Get()), EPERM);
        const NetworkView view = Take(KEMD_NETWORK_ALL, here.Get());
        EXPECT_EQ(view.ByName("p4").TextOr(KEMD_NET_SPEED), "10000");
        size_t size = 0;
        EXPECT_EQ(
            KemdNetworkListAt(view.ByName("p2").Get(), KEMD_NETWORK_WAKE_MODES, 0, nullptr, &size),
            EPERM);
        EXPECT_EQ(view.Notes(), std::vector<std::string>{"wake-on-LAN: Operation not permitted"});
        uint64_t type = 0;
        EXPECT_EQ(KemdNetworkNumber(view.ByName("p2").Get(), KEMD_NET_MODULE_TYPE, &type), EPERM);
        // The same of an interface that appeared.
        EXPECT_EQ(KemdNetworkWatchWait(watch, 20000), 0);
        EXPECT_EQ(error, EPERM);
    }).join();
}

TEST_F(NetworkTest, TheIoctlAnswersWhereNetlinkDoesNot) {
    ASSERT_TRUE(Ip("link add p0 type veth peer name p1\nlink set p0 up\nlink set p1 up"));
    const auto state = [](const NetworkView& view) {
        std::string text;
        for (uint32_t field = KEMD_NET_BUS; field < KEMD_NET_MODULE_TYPE; ++field) {
            text += view.ByName("p0").TextOr(field, "-") + " ";
        }
        return text;
    };
    // What is asked for of the hardware, and no more.
    const auto parts = [] {
        const NetworkView driver = Take(KEMD_NETWORK_DRIVER);
        const NetworkView speed = Take(KEMD_NETWORK_LINK_SPEED);
        uint64_t number = 0;
        size_t size = 0;
        EXPECT_EQ(driver.ByName("p0").TextOr(KEMD_NET_DRIVER), "veth");
        EXPECT_EQ(speed.ByName("p0").TextOr(KEMD_NET_SPEED), "10000");
        EXPECT_EQ(KemdNetworkNumber(driver.ByName("p0").Get(), KEMD_NET_SPEED, &number), ENODATA);
        EXPECT_EQ(KemdNetworkText(speed.ByName("p0").Get(), KEMD_NET_DRIVER, nullptr, &size),
                  ENODATA);
    };
    const NetworkView netlink = Take();
    parts();
    isGenericRefused = true;
    const NetworkView ioctl = Take();
    parts();
    isGenericRefused = false;
    EXPECT_EQ(state(netlink), state(ioctl));
    EXPECT_NE(state(ioctl).find("veth"), std::string::npos);
    EXPECT_FALSE(ioctl.Notes().empty());
}

TEST_F(NetworkTest, DumpsThatAreInterrupted) {
    std::string commands;
    for (int i = 0; i < 100; ++i) commands += "link add type veth\n";
    ASSERT_TRUE(Ip(commands)) << ReadFile("/tmp/ip.out");
    // A new name space has more than "lo" where the kernel makes tunnels of its own.
    const size_t all = Take(0).Interfaces().size();
    EXPECT_GE(all, 201U);
    for (const int count : {0, 5, 1000000}) {
        interruptions = count;
        const NetworkView view = Take(KEMD_NETWORK_ADDRESSES);
        interruptions = 0;
        EXPECT_EQ(KemdNetworkIsConsistent(view.Get()), count < 1000000 ? 1 : 0);
        EXPECT_EQ(view.Interfaces().size(), all);
    }
    // A driver that fails ends ethtool's dump, and takes nothing from the other interfaces.
    isDriverFailing = true;
    const NetworkView view = Take(KEMD_NETWORK_HARDWARE);
    isDriverFailing = false;
    EXPECT_EQ(view.ByName("veth0").TextOr(KEMD_NET_SPEED), "10000");
    EXPECT_EQ(view.ByName("veth199").TextOr(KEMD_NET_PORT), "twisted pair");
    EXPECT_TRUE(view.Notes().empty());
    isOverflowing = true;
    EXPECT_EQ(Take(0).Interfaces().size(), all);
    EXPECT_FALSE(isOverflowing);

    // What one request did not read does not disturb the next.
    NetlinkSocket socket;
    ASSERT_EQ(socket.Open(NETLINK_ROUTE), 0);
    NetlinkRequest request("reading", RTM_GETLINK, NLM_F_DUMP);
    request.AddHeader(ifinfomsg{});
    size_t links = 0;
    EXPECT_THROW((void)socket.Dump(
                     request, [] {}, [](const NetlinkMessage&) { throw std::bad_alloc(); }),
                 std::bad_alloc);
    EXPECT_EQ(socket.Dump(
                  request, [] {}, [&](const NetlinkMessage&) { ++links; }),
              0);
    EXPECT_EQ(links, all);
}

TEST_F(NetworkTest, TheKernelsReasonIsInTheError) {
    NetlinkSocket socket;
    ASSERT_EQ(socket.Open(NETLINK_ROUTE), 0);
    NetlinkRequest request("making a link", RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    request.AddHeader(ifinfomsg{});
    const size_t info = request.Begin(IFLA_LINKINFO);
    request.Add(IFLA_INFO_KIND, "nonsense");
    request.End(info);
    EXPECT_EQ(socket.Ask(request, [](const NetlinkMessage&) {}), EOPNOTSUPP);
    EXPECT_EQ(socket.ErrorText(), "making a link: Operation not supported (Unknown device type)");
}

// For ip: 1,000 pairs a0 and b0 ..., ten addresses on each first end.
std::string ManyPairs() {
    std::ostringstream commands;
    for (int i = 0; i < 1000; ++i) {
        commands << "link add a" << i << " type veth peer name b" << i << "\n";
        for (int host = 1; host <= 10; ++host) {
            commands << "addr add 10." << i / 250 << "." << i % 250 << "." << host << "/24 dev a"
                     << i << "\n";
        }
    }
    return commands.str();
}

// Interfaces come and go while snapshots are taken: each shows one moment, or says that it does
// not.
TEST_F(NetworkTest, ManyInterfacesThatChange) {
    // lo, and what a kernel with tunnels puts into each name space.
    const size_t others = Take(0).Interfaces().size();
    ASSERT_TRUE(Ip(ManyPairs())) << ReadFile("/tmp/ip.out");
    std::atomic<bool> isDone{false};
    std::thread changes([&] {
        std::string flaps;
        for (int i = 0; i < 100; ++i) {
            flaps += "link add x0 type veth peer name x1\naddr add 172.16.0.1/24 dev x0\n";
            // Making an interface takes the kernel long: so some 1,000 changes a second.
            for (int flap = 0; flap < 20; ++flap) flaps += "link set a0 up\nlink set a0 down\n";
            flaps += "link del x0\n";
        }
        EXPECT_TRUE(Ip(flaps)) << ReadFile("/tmp/ip.out");
        isDone = true;
    });
    do {
        const NetworkView view = Take(KEMD_NETWORK_ADDRESSES | KEMD_NETWORK_ROUTES);
        if (KemdNetworkIsConsistent(view.Get()) == 0) continue;
        const size_t count = view.Interfaces().size();
        const size_t more = count - others - 2000;
        EXPECT_TRUE(more == 0 || more == 2) << count;
        EXPECT_EQ(view.ByName("a249").Addresses().size(), 10U);
        EXPECT_EQ(static_cast<bool>(view.ByName("x0")), static_cast<bool>(view.ByName("x1")));
    } while (!isDone);
    changes.join();
    // A slow machine may not have had a quiet moment before.
    EXPECT_EQ(KemdNetworkIsConsistent(Take(KEMD_NETWORK_ADDRESSES).Get()), 1);
}

}  // namespace
