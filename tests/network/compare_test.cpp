// In one world the same as ip and ethtool show.
#include <arpa/inet.h>

#include <algorithm>
#include <set>

#include "base/json.h"
#include "base/text.h"
#include "tests/network/network_world.h"

namespace {

std::string Output(const std::string& command) {
    EXPECT_EQ(std::system((command + " >/tmp/out 2>/tmp/err").c_str()), 0) << ReadFile("/tmp/err");
    return ReadFile("/tmp/out");
}

JsonValue Json(const std::string& command) {
    std::string fault;
    auto value = ParseJson(Output(command), fault);
    EXPECT_TRUE(value) << command << ": " << fault;
    return value.value_or(JsonValue{});
}

// A member of a member: "stats64.rx.bytes"; null when there is none.
const JsonValue* Within(const JsonValue& object, std::string_view path) {
    const JsonValue* value = &object;
    while (value != nullptr && !path.empty()) {
        const std::string_view name = path.substr(0, path.find('.'));
        path.remove_prefix(std::min(name.size() + 1, path.size()));
        value = value->Find(name);
    }
    return value;
}

std::string Lower(std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

std::string AddressText(uint32_t family, const uint8_t* bytes) {
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(static_cast<int>(family), bytes, text, sizeof text) != nullptr ? text : "";
}

struct Pair {
    const char* path;
    uint32_t field;
};
constexpr Pair kPairs[] = {
    {"ifindex", KEMD_NET_INDEX},
    {"mtu", KEMD_NET_MTU},
    {"min_mtu", KEMD_NET_MIN_MTU},
    {"max_mtu", KEMD_NET_MAX_MTU},
    {"qdisc", KEMD_NET_QDISC},
    {"operstate", KEMD_NET_OPER_STATE},
    {"linkmode", KEMD_NET_LINK_MODE},
    {"txqlen", KEMD_NET_QUEUE_LENGTH},
    {"link_type", KEMD_NET_TYPE},
    {"address", KEMD_NET_MAC},
    {"broadcast", KEMD_NET_BROADCAST},
    {"permaddr", KEMD_NET_PERMANENT_MAC},
    {"promiscuity", KEMD_NET_PROMISCUITY},
    {"allmulti", KEMD_NET_ALLMULTI},
    {"ifalias", KEMD_NET_ALIAS},
    {"num_tx_queues", KEMD_NET_TX_QUEUES},
    {"num_rx_queues", KEMD_NET_RX_QUEUES},
    {"gso_max_size", KEMD_NET_GSO_MAX_SIZE},
    {"gso_max_segs", KEMD_NET_GSO_MAX_SEGMENTS},
    {"parentbus", KEMD_NET_BUS},
    {"phys_port_name", KEMD_NET_PORT_NAME},
    {"phys_switch_id", KEMD_NET_SWITCH_ID},
    {"linkinfo.info_slave_kind", KEMD_NET_MEMBER_KIND},
    {"linkinfo.info_slave_data.state", KEMD_NET_BRIDGE_PORT_STATE},
    {"linkinfo.info_slave_data.cost", KEMD_NET_BRIDGE_PORT_COST},
    {"linkinfo.info_data.mode", KEMD_NET_MACVLAN_MODE},
    {"linkinfo.info_data.mode", KEMD_NET_IPVLAN_MODE},
    {"linkinfo.info_data.mode", KEMD_NET_BOND_MODE},
    {"linkinfo.info_data.miimon", KEMD_NET_BOND_MIIMON},
    {"linkinfo.info_data.updelay", KEMD_NET_BOND_UP_DELAY},
    {"linkinfo.info_data.xmit_hash_policy", KEMD_NET_BOND_HASH},
    {"linkinfo.info_data.ad_lacp_rate", KEMD_NET_BOND_LACP_RATE},
    {"linkinfo.info_slave_data.state", KEMD_NET_BOND_MEMBER_STATE},
    {"linkinfo.info_slave_data.mii_status", KEMD_NET_BOND_MEMBER_MII},
    {"linkinfo.info_slave_data.link_failure_count", KEMD_NET_BOND_MEMBER_FAILURES},
    {"linkinfo.info_slave_data.perm_hwaddr", KEMD_NET_BOND_MEMBER_MAC},
    {"linkinfo.info_slave_data.queue_id", KEMD_NET_BOND_MEMBER_QUEUE},
    {"linkinfo.info_slave_data.ad_aggregator_id", KEMD_NET_BOND_MEMBER_AGGREGATOR},
    {"linkinfo.info_data.protocol", KEMD_NET_VLAN_PROTOCOL},
    {"linkinfo.info_data.id", KEMD_NET_VLAN_ID},
    {"linkinfo.info_data.table", KEMD_NET_VRF_TABLE},
    {"linkinfo.info_data.id", KEMD_NET_VXLAN_ID},
    {"linkinfo.info_data.port", KEMD_NET_VXLAN_PORT},
    {"linkinfo.info_data.remote", KEMD_NET_VXLAN_REMOTE},
    {"linkinfo.info_data.local", KEMD_NET_VXLAN_LOCAL},
    {"linkinfo.info_data.priority", KEMD_NET_BRIDGE_PRIORITY},
    {"stats64.rx.bytes", KEMD_NET_RX_BYTES},
    {"stats64.rx.packets", KEMD_NET_RX_PACKETS},
    {"stats64.rx.errors", KEMD_NET_RX_ERRORS},
    {"stats64.rx.dropped", KEMD_NET_RX_DROPPED},
    {"stats64.rx.over_errors", KEMD_NET_RX_OVER_ERRORS},
    {"stats64.rx.multicast", KEMD_NET_MULTICAST},
    {"stats64.tx.bytes", KEMD_NET_TX_BYTES},
    {"stats64.tx.packets", KEMD_NET_TX_PACKETS},
    {"stats64.tx.errors", KEMD_NET_TX_ERRORS},
    {"stats64.tx.dropped", KEMD_NET_TX_DROPPED},
    {"stats64.tx.carrier_errors", KEMD_NET_TX_CARRIER_ERRORS},
    {"stats64.tx.collisions", KEMD_NET_COLLISIONS},
};

// What is compared: there are timers, too, that always change.
std::string Compared(const JsonValue& links) {
    std::string text;
    for (const JsonValue& link : links.elements) {
        for (const Pair& pair : kPairs) {
            const JsonValue* value = Within(link, pair.path);
            if (value != nullptr) text += value->text + ";";
        }
    }
    return text;
}

constexpr const char* kTun = "tuntap add t0 mode tap\ntuntap add t1 mode tun";
constexpr const char* kBond =
    "link add o0 type bond mode 802.3ad miimon 50 updelay 100 xmit_hash_policy layer2+3\n"
    "link add q0 type veth peer name q1\nlink set q0 master o0\nlink set o0 addrgenmode none up\n"
    "link add link o0 name o0.5 type vlan id 5 protocol 802.1ad";

class NetworkCompareTest : public NetworkTest {
  protected:
    void SetUp() override {
        NetworkTest::SetUp();
        ASSERT_TRUE(Ip(
            "link add p0 type veth peer name p1\nlink add b0 type bridge stp_state 1\n"
            "link set p0 addrgenmode none\nlink set p1 addrgenmode none\n"
            "link set b0 addrgenmode none\nlink set p1 master b0\nlink set p0 up alias uplink\nlink set p1 up\n"
            "link set b0 up\nlink set lo up\nlink add i0 type ifb\n"
            "link add link p0 name m0 type macvlan mode bridge\n"
            "link set m0 addrgenmode none up\n"
            "link add x0 type vxlan id 7 dstport 4789 remote 192.0.2.9 dev p0\n"
            "link property add dev p0 altname second\n"
            "addr add 192.0.2.1/24 brd + dev p0 label p0:web\n"
            "addr add 192.0.2.5 peer 192.0.2.6/32 dev p0 scope link\n"
            "addr add 2001:db8::1/64 dev m0 nodad\n"
            "route add default via 192.0.2.2 metric 50\n"
            "route add default table 1000 via 192.0.2.4 metric 3\n"
            "route add default via fe80::9 dev p0 metric 70"))
            << ReadFile("/tmp/ip.out");
        // What an ordinary user may not have, and what not every kernel knows.
        for (const char* commands :
             {kTun, kBond, "link add v0 type vrf table 10", "link add d0 type dummy",
              "link add link p0 name j0 type ipvlan mode l3s"}) {
            (void)Ip(commands);
        }
    }
};

void CompareFlags(const JsonValue& link, InterfaceView interface) {
    // ip has words of its own, too: no carrier, and a peer that is down.
    std::set<std::string> theirs;
    for (const JsonValue& flag : link.Find("flags")->elements) {
        if (flag.text != "NO-CARRIER" && flag.text != "M-DOWN") theirs.insert(Lower(flag.text));
    }
    std::set<std::string> ours;
    const std::string text = interface.TextOr(KEMD_NET_FLAGS);
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view word = rest.substr(0, rest.find(' '));
        rest.remove_prefix(std::min(word.size() + 1, rest.size()));
        if (word != "running") ours.emplace(word);  // ip does not show it
    }
    EXPECT_EQ(theirs, ours);
}

TEST_F(NetworkCompareTest, LinksAsIpShowsThem) {
    std::optional<NetworkView> view;
    JsonValue links;
    // A frame of the kernel's own may be sent in between.
    ASSERT_TRUE(WaitFor([&] {
        const std::string before = Compared(Json("/usr/sbin/ip -j -d -s link"));
        view.emplace(Take());
        links = Json("/usr/sbin/ip -j -d -s link");
        return before == Compared(links);
    }));
    ASSERT_EQ(links.elements.size(), view->Interfaces().size());
    size_t compared = 0;
    for (const JsonValue& link : links.elements) {
        const std::string name(link.TextOf("ifname"));
        SCOPED_TRACE(name);
        const InterfaceView interface = view->ByName(name.c_str());
        ASSERT_TRUE(interface);
        for (const auto& [path, field] : kPairs) {
            const JsonValue* theirs = Within(link, path);
            if (theirs == nullptr || theirs->text.empty()) continue;
            const auto ours = interface.Text(field);
            // Several kinds have a mode, an id, a state.
            if (!ours && std::string_view(path).starts_with("linkinfo")) continue;
            if (theirs->text == "0" && !ours) continue;  // 0: there is no limit
            EXPECT_EQ(Lower(theirs->text), Lower(ours.value_or("absent"))) << path;
            ++compared;
        }
        CompareFlags(link, interface);
        const uint64_t master = interface.Number(KEMD_NET_MASTER).value_or(0);
        EXPECT_EQ(link.TextOf("master"), view->ByIndex(master).TextOr(KEMD_NET_NAME));
        const uint64_t parent = interface.Number(KEMD_NET_PARENT).value_or(0);
        const JsonValue* below = Within(link, "linkinfo.info_data.link");  // as vxlan has it
        EXPECT_EQ(below != nullptr ? below->text : link.TextOf("link"),
                  view->ByIndex(parent).TextOr(KEMD_NET_NAME));
    }
    EXPECT_GT(compared, 200U);
}

TEST_F(NetworkCompareTest, AddressesAndRoutesAsIpShowsThem) {
    const JsonValue links = Json("/usr/sbin/ip -j addr");
    const NetworkView view = Take();
    size_t compared = 0;
    for (const JsonValue& link : links.elements) {
        const std::string name(link.TextOf("ifname"));
        const auto ours = view.ByName(name.c_str()).Addresses();
        const JsonValue* theirs = link.Find("addr_info");
        ASSERT_EQ(theirs->elements.size(), ours.size()) << name;
        for (size_t i = 0; i < ours.size(); ++i, ++compared) {
            const JsonValue& their = theirs->elements[i];
            const auto& our = ours[i];
            EXPECT_EQ(their.TextOf("local"), AddressText(our.family, our.address));
            EXPECT_EQ(their.NumberOf("prefixlen"), our.prefix);
            EXPECT_EQ(their.TextOf("label"), our.label);
            EXPECT_EQ(their.TextOf("address"),
                      our.hasPeer != 0 ? AddressText(our.family, our.peer) : "");
            EXPECT_EQ(their.TextOf("broadcast"),
                      our.hasBroadcast != 0 ? AddressText(our.family, our.broadcast) : "");
            EXPECT_EQ(their.NumberOf("valid_life_time"), our.validSeconds);
            EXPECT_EQ(their.NumberOf("preferred_life_time"), our.preferredSeconds);
        }
    }
    EXPECT_GE(compared, 5U);
    std::vector<std::string> theirs;
    for (const char* family : {"-4", "-6"}) {
        const JsonValue routes =
            Json(std::string("/usr/sbin/ip -j ") + family + " route show table all default");
        for (const JsonValue& route : routes.elements) {
            const std::string_view table = route.TextOf("table");
            theirs.push_back(std::string(table.empty() ? "254" : table) + " " +
                             std::to_string(route.NumberOf("metric").value_or(0)) + " " +
                             std::string(route.TextOf("dev")) + " " +
                             std::string(route.TextOf("gateway")));
        }
    }
    std::vector<std::string> ours;
    for (const auto& route : view.Routes()) {
        ours.push_back(std::to_string(route.table) + " " + std::to_string(route.metric) + " " +
                       view.ByIndex(route.interface).TextOr(KEMD_NET_NAME) + " " +
                       AddressText(route.gatewayFamily, route.gateway));
    }
    std::sort(theirs.begin(), theirs.end());
    std::sort(ours.begin(), ours.end());
    EXPECT_EQ(theirs, ours);
    EXPECT_EQ(ours.size(), 3U);
}

// Features whose name ethtool replaces by an older one for several together.
const std::set<std::string> kOwnNames = {"rx-checksumming",
                                         "tx-checksumming",
                                         "scatter-gather",
                                         "tcp-segmentation-offload",
                                         "generic-segmentation-offload",
                                         "generic-receive-offload",
                                         "large-receive-offload",
                                         "rx-vlan-offload",
                                         "tx-vlan-offload",
                                         "ntuple-filters",
                                         "receive-hashing"};

TEST_F(NetworkCompareTest, HardwareAsEthtoolShowsIt) {
    const NetworkView view = Take();
    size_t compared = 0;
    for (const InterfaceView& interface : view.Interfaces()) {
        const std::string name = interface.TextOr(KEMD_NET_NAME);
        SCOPED_TRACE(name);
        std::string text = Output("/usr/sbin/ethtool -k " + name);
        const auto on = interface.List(KEMD_NETWORK_FEATURES);
        const auto changeable = interface.List(KEMD_NETWORK_CHANGEABLE_FEATURES);
        const auto has = [](const auto& list, const std::string& feature) {
            return std::find(list.begin(), list.end(), feature) != list.end();
        };
        for (std::string_view rest = text; !rest.empty();) {
            const std::string_view line = Trim(TakeLine(rest));
            const std::string feature(line.substr(0, line.find(':')));
            const std::string value(Trim(line.substr(std::min(feature.size() + 1, line.size()))));
            if (value.empty() || kOwnNames.contains(feature)) continue;
            EXPECT_EQ(value.starts_with("on"), has(on, feature)) << line;
            EXPECT_EQ(!Contains(value, "[fixed]"), has(changeable, feature)) << line;
            ++compared;
        }
        if (name[0] != 'p') continue;
        text = Output("/usr/sbin/ethtool " + name);
        EXPECT_TRUE(Contains(text, "Speed: " + interface.TextOr(KEMD_NET_SPEED) + "Mb/s"));
        EXPECT_TRUE(Contains(Lower(text), "duplex: " + interface.TextOr(KEMD_NET_DUPLEX)));
        EXPECT_TRUE(Contains(Lower(text), "port: " + interface.TextOr(KEMD_NET_PORT)));
        EXPECT_TRUE(Contains(text, "Link detected: yes"));
        EXPECT_EQ(interface.TextOr(KEMD_NET_LINK_DETECTED), "1");
        text = Output("/usr/sbin/ethtool -i " + name);
        EXPECT_TRUE(Contains(text, "driver: " + interface.TextOr(KEMD_NET_DRIVER) + "\n"));
        EXPECT_TRUE(Contains(text, "version: " + interface.TextOr(KEMD_NET_DRIVER_VERSION) + "\n"));
    }
    EXPECT_GT(compared, 300U);
}

}  // namespace
