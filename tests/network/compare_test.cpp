// In each world the same as ip and ethtool show.
#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "base/json.h"
#include "base/text.h"
#include "tests/network/network_world.h"

namespace {

// Nothing when it fails: ethtool does where the driver has no answer.
std::optional<std::string> OutputOf(const std::string& command) {
    if (std::system((command + " >/tmp/out 2>/tmp/err").c_str()) != 0) return std::nullopt;
    return ReadFile("/tmp/out");
}

// Bytes that are not ASCII, which ip passes on in JSON as well, become question marks.
std::string Ascii(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) c = '?';
    }
    return text;
}

JsonValue Json(const std::string& text) {
    std::string fault;
    auto value = ParseJson(Ascii(text), fault);
    EXPECT_TRUE(value) << fault << "\n" << text;
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

// A member that is a text or a number.
std::string TextOf(const JsonValue& object, const char* name, const char* otherwise = "") {
    const JsonValue* value = object.Find(name);
    return value != nullptr ? value->text : otherwise;
}

std::set<std::string> Words(const std::string& text) {
    std::set<std::string> words;
    for (std::string_view rest = text; !(rest = Trim(rest)).empty();) {
        const std::string_view word = rest.substr(0, rest.find_first_of(" \t\n"));
        words.emplace(word);
        rest.remove_prefix(word.size());
    }
    return words;
}

std::set<std::string> Words(const JsonValue& list) {
    std::set<std::string> words;
    for (const JsonValue& word : list.elements) words.insert(Lower(word.text));
    return words;
}

// `kind`: only where the interface, or its membership, is of this kind.
struct Pair {
    const char* path = nullptr;
    uint32_t field = 0;
    const char* kind = nullptr;
};
constexpr Pair kPairs[] = {
    {"ifindex", KEMD_NET_INDEX},
    {"mtu", KEMD_NET_MTU},
    {"min_mtu", KEMD_NET_MIN_MTU},
    {"max_mtu", KEMD_NET_MAX_MTU},
    {"qdisc", KEMD_NET_QDISC},
    {"operstate", KEMD_NET_OPER_STATE},
    {"linkmode", KEMD_NET_LINK_MODE},
    {"group", KEMD_NET_GROUP},
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
    {"parentdev", KEMD_NET_BUS_ADDRESS},
    {"phys_port_name", KEMD_NET_PORT_NAME},
    {"phys_port_id", KEMD_NET_PORT_ID},
    {"phys_switch_id", KEMD_NET_SWITCH_ID},
    {"master", KEMD_NET_MASTER},
    {"link", KEMD_NET_PARENT},
    {"link_netnsid", KEMD_NET_PARENT_NAME_SPACE},
    {"linkinfo.info_kind", KEMD_NET_KIND},
    {"linkinfo.info_slave_kind", KEMD_NET_MEMBER_KIND},
    {"linkinfo.info_slave_data.state", KEMD_NET_BRIDGE_PORT_STATE, "bridge"},
    {"linkinfo.info_slave_data.cost", KEMD_NET_BRIDGE_PORT_COST, "bridge"},
    {"linkinfo.info_slave_data.state", KEMD_NET_BOND_MEMBER_STATE, "bond"},
    {"linkinfo.info_slave_data.mii_status", KEMD_NET_BOND_MEMBER_MII, "bond"},
    {"linkinfo.info_slave_data.link_failure_count", KEMD_NET_BOND_MEMBER_FAILURES, "bond"},
    {"linkinfo.info_slave_data.perm_hwaddr", KEMD_NET_BOND_MEMBER_MAC, "bond"},
    {"linkinfo.info_slave_data.queue_id", KEMD_NET_BOND_MEMBER_QUEUE, "bond"},
    {"linkinfo.info_slave_data.ad_aggregator_id", KEMD_NET_BOND_MEMBER_AGGREGATOR, "bond"},
    {"linkinfo.info_data.mode", KEMD_NET_BOND_MODE, "bond"},
    {"linkinfo.info_data.miimon", KEMD_NET_BOND_MIIMON, "bond"},
    {"linkinfo.info_data.active_slave", KEMD_NET_BOND_ACTIVE, "bond"},
    {"linkinfo.info_data.primary", KEMD_NET_BOND_PRIMARY, "bond"},
    {"linkinfo.info_data.updelay", KEMD_NET_BOND_UP_DELAY, "bond"},
    {"linkinfo.info_data.downdelay", KEMD_NET_BOND_DOWN_DELAY, "bond"},
    {"linkinfo.info_data.xmit_hash_policy", KEMD_NET_BOND_HASH, "bond"},
    {"linkinfo.info_data.ad_lacp_rate", KEMD_NET_BOND_LACP_RATE, "bond"},
    {"linkinfo.info_data.id", KEMD_NET_VLAN_ID, "vlan"},
    {"linkinfo.info_data.protocol", KEMD_NET_VLAN_PROTOCOL, "vlan"},
    {"linkinfo.info_data.mode", KEMD_NET_MACVLAN_MODE, "macvlan"},
    {"linkinfo.info_data.mode", KEMD_NET_IPVLAN_MODE, "ipvlan"},
    {"linkinfo.info_data.id", KEMD_NET_VXLAN_ID, "vxlan"},
    {"linkinfo.info_data.port", KEMD_NET_VXLAN_PORT, "vxlan"},
    {"linkinfo.info_data.remote", KEMD_NET_VXLAN_REMOTE, "vxlan"},
    {"linkinfo.info_data.local", KEMD_NET_VXLAN_LOCAL, "vxlan"},
    {"linkinfo.info_data.table", KEMD_NET_VRF_TABLE, "vrf"},
    {"linkinfo.info_data.type", KEMD_NET_KIND, "tun"},
    {"linkinfo.info_data.persist", KEMD_NET_TUN_PERSISTENT, "tun"},
    {"linkinfo.info_data.stp_state", KEMD_NET_BRIDGE_STP, "bridge"},
    {"linkinfo.info_data.vlan_filtering", KEMD_NET_BRIDGE_VLANS, "bridge"},
    {"linkinfo.info_data.priority", KEMD_NET_BRIDGE_PRIORITY, "bridge"},
    {"stats64.rx.bytes", KEMD_NET_RX_BYTES},
    {"stats64.rx.packets", KEMD_NET_RX_PACKETS},
    {"stats64.rx.errors", KEMD_NET_RX_ERRORS},
    {"stats64.rx.dropped", KEMD_NET_RX_DROPPED},
    {"stats64.rx.over_errors", KEMD_NET_RX_OVER_ERRORS},
    {"stats64.rx.multicast", KEMD_NET_MULTICAST},
    {"stats64.rx.length_errors", KEMD_NET_RX_LENGTH_ERRORS},
    {"stats64.rx.crc_errors", KEMD_NET_RX_CRC_ERRORS},
    {"stats64.rx.frame_errors", KEMD_NET_RX_FRAME_ERRORS},
    {"stats64.rx.fifo_errors", KEMD_NET_RX_FIFO_ERRORS},
    {"stats64.rx.missed_errors", KEMD_NET_RX_MISSED_ERRORS},
    {"stats64.rx.nohandler", KEMD_NET_RX_NO_HANDLER},
    {"stats64.tx.bytes", KEMD_NET_TX_BYTES},
    {"stats64.tx.packets", KEMD_NET_TX_PACKETS},
    {"stats64.tx.errors", KEMD_NET_TX_ERRORS},
    {"stats64.tx.dropped", KEMD_NET_TX_DROPPED},
    {"stats64.tx.carrier_errors", KEMD_NET_TX_CARRIER_ERRORS},
    {"stats64.tx.collisions", KEMD_NET_COLLISIONS},
    {"stats64.tx.aborted_errors", KEMD_NET_TX_ABORTED_ERRORS},
    {"stats64.tx.fifo_errors", KEMD_NET_TX_FIFO_ERRORS},
    {"stats64.tx.window_errors", KEMD_NET_TX_WINDOW_ERRORS},
    {"stats64.tx.heartbeat_errors", KEMD_NET_TX_HEARTBEAT_ERRORS},
    {"stats64.tx.carrier_changes", KEMD_NET_CARRIER_CHANGES},
};

struct World {
    const char* name;
    std::string commands;
};
void PrintTo(const World& world, std::ostream* out) {
    *out << world.name;
}

std::string ManyInterfaces() {
    std::string commands;
    for (int i = 0; i < 1000; ++i) {
        const std::string number = std::to_string(i);
        commands.append("link add a").append(number);
        commands.append(" type veth peer name b").append(number).append("\n");
        for (int host = 1; host <= 10; ++host) {
            commands.append("addr add 10.").append(std::to_string(i / 250)).append(".");
            commands.append(std::to_string(i % 250)).append(".").append(std::to_string(host));
            commands.append("/24 dev a").append(number).append("\n");
        }
    }
    return commands;
}

// The first member has a link when it joins, so that it is the active one at once.
std::string Bond(const std::string& options) {
    return "link add o0 type bond miimon 50 " + options +
           "\nlink set p1 up\nlink set o0 up\nlink set p0 master o0\nlink set q0 master o0\n"
           "addr add 192.0.2.1/24 dev o0";
}

// All have the pairs p0 and p1, q0 and q1.
const World kWorlds[] = {
    {"Plain",
     "link set p0 up alias uplink group 7\nlink set p1 up\nlink set lo up\n"
     "link property add dev p0 altname second\n"
     "addr add 192.0.2.1/24 brd + dev p0 label p0:web\n"
     "addr add 192.0.2.5 peer 192.0.2.6/32 dev p0 scope link\n"
     "addr add 192.0.2.7/24 dev p0 valid_lft 4000 preferred_lft 0\n"
     "addr add 192.0.2.8/24 dev p0 metric 9 noprefixroute\n"
     "addr add 2001:db8::1/64 dev p1 nodad home mngtmpaddr\naddr add 2001:db8::2/64 dev p1"},
    {"Routes",
     "link set p0 up\nlink set p1 up\naddr add 192.0.2.1/24 dev p0\n"
     "addr add 198.51.100.1/24 dev q0\nlink set q0 up\naddr add 2001:db8::1/64 dev p0 nodad\n"
     "route add default via 192.0.2.2 metric 50 src 192.0.2.1\n"
     "route add default via 203.0.113.9 dev p0 onlink metric 51 proto static\n"
     "route add default dev p0 scope link metric 52\n"
     "route add default table 1000 nexthop via 192.0.2.4 weight 3 nexthop via 198.51.100.9\n"
     "route add default via inet6 fe80::7 dev p0 metric 60\n"
     "route add prohibit default metric 900\nroute add 203.0.113.0/24 via 192.0.2.3\n"
     "route add default via fe80::9 dev p0 metric 70\n"
     "route append default via fe80::8 dev p0 metric 70\n"
     "route add unreachable default metric 4000 table 1000\n"
     "route add default from 2001:db8::/64 via fe80::9 dev p0"},
    {"NextHops",
     "link set p0 up\nlink set p1 up\nlink set lo up\naddr add 192.0.2.1/24 dev p0\n"
     "nexthop add id 1 via 192.0.2.2 dev p0\nnexthop add id 2 via 192.0.2.3 dev p0\n"
     "nexthop add id 3 group 1,4/2,2\nnexthop add id 4 blackhole\n"
     "route add default nhid 1 metric 1\nroute add default nhid 3 metric 2\n"
     "route add default nhid 4 metric 3"},
    {"Dummy", "link add d0 type dummy\nlink set d0 up\naddr add 192.0.2.1/24 dev d0"},
    {"Bridge",
     "link add b0 type bridge stp_state 1 priority 4096\nlink set p0 master b0\n"
     "link set q0 master b0\nlink set p0 type bridge_slave cost 77\nlink set p0 up\n"
     "link set p1 up\nlink set b0 up"},
    {"BridgeOfVlans", "link add b0 type bridge vlan_filtering 1"},
    {"BondActiveBackup",
     Bond("mode active-backup") + "\nlink set o0 type bond primary q0 updelay 100 downdelay 50"},
    {"Bond8023ad", Bond("mode 802.3ad lacp_rate fast xmit_hash_policy layer2+3")},
    {"BondBalanceRr", Bond("mode balance-rr")},
    {"VlanOnBond", Bond("mode balance-xor xmit_hash_policy vlan+srcmac") +
                       "\nlink add link o0 name o0.7 type vlan id 7 protocol 802.1ad\n"
                       "link add link o0.7 name o0.7.9 type vlan id 9\nlink set o0.7 up\n"
                       "link set o0.7.9 up\naddr add 198.51.100.1/24 dev o0.7.9"},
    {"Macvlan",
     "link add link p0 name m0 type macvlan mode bridge\nlink set p0 up\nlink set p1 up\n"
     "link set m0 up\nlink add link p1 name m1 type macvtap mode private"},
    {"Ipvlan",
     "link add link p0 name i0 type ipvlan mode l3s\nlink set p0 up\nlink set p1 up\n"
     "link set i0 up\naddr add 192.0.2.1/24 dev i0"},
    {"Vxlan",
     "link set p0 up\nlink set p1 up\n"
     "link add x0 type vxlan id 7 dstport 4789 remote 192.0.2.9 local 192.0.2.1 dev p0\n"
     "link add x1 type vxlan id 8 dstport 8472 group 239.1.1.1 dev p0\nlink set x1 up\n"
     "link add x2 type vxlan id 9 dstport 4789 remote 2001:db8::9 local 2001:db8::1"},
    {"Ifb", "link add f0 type ifb\nlink set f0 up"},
    {"Tun", "tuntap add t0 mode tun user 0\nlink set t0 up\naddr add 192.0.2.1/24 dev t0"},
    {"Tap", "tuntap add t0 mode tap group 0 multi_queue\nlink set t0 up"},
    {"Vrf",
     "link add v0 type vrf table 10\nlink set v0 up\nlink set p0 master v0\nlink set p0 up\n"
     "link set p1 up\naddr add 192.0.2.1/24 dev p0\nroute add default via 192.0.2.2 table 10"},
    {"Gre",
     "link add g0 type gre local 192.0.2.1 remote 192.0.2.9 key 7\nlink set g0 up\n"
     "link add g1 type gretap local 192.0.2.1 remote 192.0.2.9\naddr add 198.51.100.1/24 dev g0"},
    {"Ipip", "link add i0 type ipip local 192.0.2.1 remote 192.0.2.9\nlink set i0 up"},
    {"Sit", "link add s0 type sit local 192.0.2.1 remote 192.0.2.9\nlink set s0 up"},
    {"Ip6Tunnels",
     "link add g0 type ip6gre local 2001:db8::1 remote 2001:db8::9\nlink set g0 up\n"
     "link add t0 type ip6tnl local 2001:db8::1 remote 2001:db8::9"},
    {"Renamed",
     "link set p0 name uplink\nlink set q0 name p0\nlink property add dev uplink altname " +
         std::string(127, 'n') + " altname " + std::string(127, 'm') +
         "\nlink set p1 up\nlink set uplink up"},
    {"NotUtf8",
     "link set p0 name \xff\xfe\x80\nlink set \xff\xfe\x80 up\n"
     "addr add 192.0.2.1/24 dev \xff\xfe\x80"},
    {"ManyInterfaces", ManyInterfaces()},
};

// Without the timers of bridges, which always run.
std::string Steady(std::string text) {
    constexpr std::string_view kTimer = "_timer\":";
    for (size_t at = 0; (at = text.find(kTimer, at)) != std::string::npos;) {
        at += kTimer.size();
        text.erase(at, text.find_first_of(",}", at) - at);
    }
    return text;
}

class NetworkComparison : public NetworkTest {
  protected:
    // Reads ours between two equal readings of theirs: a frame of the kernel's own may be sent.
    void TakeWith(const std::string& command, uint32_t parts) {
        for (int attempt = 0; attempt < 50; ++attempt) {
            const std::string before = Steady(OutputOf(command).value_or(""));
            view.emplace(Take(parts));
            theirs = OutputOf(command).value_or("");
            if (before == Steady(theirs)) return;
        }
        FAIL() << command << " never twice the same";
    }
    void CompareAll();

    std::optional<NetworkView> view;
    std::string theirs;
    size_t compared = 0;

  private:
    void CompareLinks();
    void CompareLink(const JsonValue& link, InterfaceView interface);
    void CompareFlags(const JsonValue& link, InterfaceView interface);
    void CompareAddresses();
    void CompareRoutes();
    void CompareLines(InterfaceView interface, const std::string& arguments);
    void CompareFeatures(InterfaceView interface, const std::string& name);
    void CompareModes(InterfaceView interface, const std::string& key, const std::string& value);
    void Same(const std::string& their, const std::string& our, std::string_view what) {
        EXPECT_EQ(their, Ascii(our)) << what;
        if (!their.empty()) ++compared;  // not what both lack
    }
    [[nodiscard]] std::string OurText(InterfaceView interface, uint32_t field,
                                      const JsonValue* their) const;
};

// As ip writes it: the name of another interface, a number where ip has one, "" when absent.
std::string NetworkComparison::OurText(InterfaceView interface, uint32_t field,
                                       const JsonValue* their) const {
    KemdNetworkFieldInfo info{};
    info.size = sizeof info;
    EXPECT_EQ(KemdNetworkField(field, &info), 0);
    const auto number = interface.Number(field);
    if (info.kind == KEMD_NETWORK_KIND_INDEX) {
        const InterfaceView other = view->ByIndex(number.value_or(0));
        return other ? other.TextOr(KEMD_NET_NAME) : "";
    }
    if (number && their != nullptr && their->kind == JsonValue::kNumber) {
        return std::to_string(*number);
    }
    return Lower(interface.TextOr(field));
}

std::string TextAt(const JsonValue& link, const std::string& path) {
    const JsonValue* value = Within(link, path);
    if (value == nullptr) return "";
    if (value->kind == JsonValue::kFlag) return value->flag ? "1" : "0";
    return Lower(value->text);
}

// As the library says it where ip leaves it out, or shows something for none.
std::string TheirText(const JsonValue& link, const Pair& pair, const std::string& our) {
    std::string their = TextAt(link, pair.path);
    const uint32_t field = pair.field;
    if (field == KEMD_NET_GROUP && their == "default") return "0";
    if (field == KEMD_NET_KIND && (their.empty() || our == "tap")) return our;
    if (field == KEMD_NET_MAX_MTU && their == "0") return "";
    // Of a virtio device ip shows the bus within the PCI function; tun and tap have no bus.
    const bool isOfBus = field == KEMD_NET_BUS || field == KEMD_NET_BUS_ADDRESS;
    if (isOfBus && (their.empty() || TextAt(link, "parentbus") == "virtio")) return our;
    if (!their.empty()) return their;
    if (field == KEMD_NET_PERMANENT_MAC && !our.empty()) return TextAt(link, "address");
    if (field == KEMD_NET_VXLAN_REMOTE && our.find(':') == std::string::npos) {
        return TextAt(link, "linkinfo.info_data.group");
    }
    if (field == KEMD_NET_VXLAN_REMOTE || field == KEMD_NET_VXLAN_LOCAL) {
        return TextAt(link, pair.path + std::string("6"));
    }
    return our == "0" ? "0" : "";
}

void NetworkComparison::CompareLink(const JsonValue& link, InterfaceView interface) {
    for (const Pair& pair : kPairs) {
        const bool isOfMember = std::string_view(pair.path).starts_with("linkinfo.info_slave_data");
        const std::string kind =
            TextAt(link, isOfMember ? "linkinfo.info_slave_kind" : "linkinfo.info_kind");
        if (pair.kind != nullptr && pair.kind != kind) continue;
        const std::string our = OurText(interface, pair.field, Within(link, pair.path));
        Same(TheirText(link, pair, our), our, pair.path);
    }
    const JsonValue* names = link.Find("altnames");
    const auto ours = interface.List(KEMD_NETWORK_ALTERNATIVE_NAMES);
    EXPECT_EQ(names != nullptr ? Words(*names) : std::set<std::string>(),
              std::set<std::string>(ours.begin(), ours.end()));
    CompareFlags(link, interface);
}

void NetworkComparison::CompareFlags(const JsonValue& link, InterfaceView interface) {
    std::set<std::string> expected = Words(*link.Find("flags"));
    expected.erase("m-down");  // the state of the parent
    std::set<std::string> ours = Words(interface.TextOr(KEMD_NET_FLAGS));
    // In ip's words.
    const bool isRunning = ours.erase("running") != 0;
    if (ours.contains("up") && !isRunning) ours.insert("no-carrier");
    EXPECT_EQ(expected, ours);
    ++compared;
}

void NetworkComparison::CompareLinks() {
    ASSERT_NO_FATAL_FAILURE(TakeWith("/usr/sbin/ip -j -d -s -s link", KEMD_NETWORK_ALL));
    const JsonValue links = Json(theirs);
    ASSERT_EQ(links.elements.size(), view->Interfaces().size());
    for (const JsonValue& link : links.elements) {
        const InterfaceView interface =
            view->ByIndex(static_cast<uint64_t>(link.NumberOf("ifindex").value()));
        ASSERT_TRUE(interface);
        const std::string name = interface.TextOr(KEMD_NET_NAME);
        SCOPED_TRACE(name);
        Same(TextOf(link, "ifname"), name, "ifname");
        CompareLink(link, interface);
    }
}

constexpr struct {
    uint32_t flag;
    const char* word;
} kAddressFlags[] = {{IFA_F_NODAD, "nodad"},
                     {IFA_F_OPTIMISTIC, "optimistic"},
                     {IFA_F_DADFAILED, "dadfailed"},
                     {IFA_F_HOMEADDRESS, "home"},
                     {IFA_F_DEPRECATED, "deprecated"},
                     {IFA_F_TENTATIVE, "tentative"},
                     {IFA_F_MANAGETEMPADDR, "mngtmpaddr"},
                     {IFA_F_NOPREFIXROUTE, "noprefixroute"},
                     {IFA_F_MCAUTOJOIN, "autojoin"},
                     {IFA_F_STABLE_PRIVACY, "stable-privacy"}};

// One address as a line, of ours and of theirs.
std::string AddressLine(const KemdNetworkAddress& our) {
    std::string line = AddressText(our.family, our.address) + "/" + std::to_string(our.prefix) +
                       " scope " + std::to_string(our.scope) + " label " + our.label + " peer " +
                       (our.hasPeer != 0 ? AddressText(our.family, our.peer) : "") + " brd " +
                       (our.hasBroadcast != 0 ? AddressText(our.family, our.broadcast) : "") +
                       " valid " + std::to_string(our.validSeconds) + " preferred " +
                       std::to_string(our.preferredSeconds) + " metric " +
                       std::to_string(our.metric);
    for (const auto& [flag, word] : kAddressFlags) {
        if ((our.flags & flag) != 0) line.append(" ").append(word);
    }
    if ((our.flags & IFA_F_PERMANENT) == 0) line += " dynamic";
    if ((our.flags & IFA_F_SECONDARY) != 0) {
        line += our.family == AF_INET ? " secondary" : " temporary";
    }
    return line;
}

std::string AddressLine(const JsonValue& their) {
    std::string line = TextOf(their, "local") + "/" + TextOf(their, "prefixlen") + " scope " +
                       TextOf(their, "scope") + " label " + TextOf(their, "label") + " peer " +
                       TextOf(their, "address") + " brd " + TextOf(their, "broadcast") + " valid " +
                       TextOf(their, "valid_life_time") + " preferred " +
                       TextOf(their, "preferred_life_time") + " metric " +
                       TextOf(their, "metric", "0");
    for (const auto& [flag, word] : kAddressFlags) {
        if (their.Find(word) != nullptr) line.append(" ").append(word);
    }
    for (const char* word : {"dynamic", "secondary", "temporary"}) {
        if (their.Find(word) != nullptr) line.append(" ").append(word);
    }
    return line;
}

void NetworkComparison::CompareAddresses() {
    ASSERT_NO_FATAL_FAILURE(TakeWith("/usr/sbin/ip -N -j addr", KEMD_NETWORK_ADDRESSES));
    const JsonValue links = Json(theirs);
    for (const JsonValue& link : links.elements) {
        const auto index = static_cast<uint64_t>(link.NumberOf("ifindex").value());
        std::vector<std::string> their;
        for (const JsonValue& one : link.Find("addr_info")->elements) {
            their.push_back(AddressLine(one));
        }
        std::vector<std::string> our;
        for (const auto& one : view->ByIndex(index).Addresses())
            our.push_back(Ascii(AddressLine(one)));
        EXPECT_EQ(their, our) << index;
        compared += 9 * our.size();
    }
}

constexpr struct {
    uint32_t flag;
    const char* word;
} kRouteFlags[] = {{RTNH_F_DEAD, "dead"},
                   {RTNH_F_PERVASIVE, "pervasive"},
                   {RTNH_F_ONLINK, "onlink"},
                   {RTNH_F_LINKDOWN, "linkdown"}};

// The route's own and those of one hop, in one line.
std::string RouteLine(const JsonValue& route, const JsonValue& hop) {
    const JsonValue* via = Within(hop, "via.host");
    std::string line = TextOf(route, "type", "1") + " table " + TextOf(route, "table", "254") +
                       " metric " + TextOf(route, "metric", "0") + " proto " +
                       TextOf(route, "protocol", "3") + " scope " + TextOf(route, "scope", "0") +
                       " src " + TextOf(route, "prefsrc") + " dev " + TextOf(hop, "dev") + " via " +
                       (via != nullptr ? via->text : TextOf(hop, "gateway")) + " weight " +
                       TextOf(hop, "weight", "0");
    const std::set<std::string> flags = Words(*hop.Find("flags"));
    for (const auto& [flag, word] : kRouteFlags) {
        if (flags.contains(word)) line.append(" ").append(word);
    }
    return line;
}

std::string RouteLine(const KemdNetworkRoute& route, InterfaceView interface) {
    std::string line =
        std::to_string(route.type) + " table " + std::to_string(route.table) + " metric " +
        std::to_string(route.metric) + " proto " + std::to_string(route.protocol) + " scope " +
        std::to_string(route.scope) + " src " +
        (route.hasSource != 0 ? AddressText(route.family, route.source) : "") + " dev " +
        (interface ? interface.TextOr(KEMD_NET_NAME) : "") + " via " +
        AddressText(route.gatewayFamily, route.gateway) + " weight " + std::to_string(route.weight);
    for (const auto& [flag, word] : kRouteFlags) {
        if ((route.flags & flag) != 0) line.append(" ").append(word);
    }
    return line;
}

void AddRouteLines(const JsonValue& routes, std::vector<std::string>& lines) {
    for (const JsonValue& route : routes.elements) {
        if (route.Find("from") != nullptr) continue;  // not for every packet
        const JsonValue* hops = route.Find("nexthops");
        if (hops == nullptr) {
            lines.push_back(RouteLine(route, route));
            continue;
        }
        for (const JsonValue& hop : hops->elements) lines.push_back(RouteLine(route, hop));
    }
}

void NetworkComparison::CompareRoutes() {
    std::vector<std::string> their;
    for (const char* family : {"-4", "-6"}) {
        TakeWith(std::string("/usr/sbin/ip -N -j -d ") + family + " route show table all default",
                 KEMD_NETWORK_ROUTES);
        if (HasFatalFailure()) return;
        AddRouteLines(Json(theirs), their);
    }
    std::vector<std::string> ours;
    for (const auto& route : view->Routes()) {
        ours.push_back(Ascii(RouteLine(route, view->ByIndex(route.interface))));
    }
    std::sort(their.begin(), their.end());
    std::sort(ours.begin(), ours.end());
    EXPECT_EQ(their, ours);
    compared += 10 * ours.size();
}

// Features for which ethtool has an older name: the kernel's, or none for several together.
const std::map<std::string, std::string> kOldNames = {
    {"rx-checksumming", "rx-checksum"},
    {"tx-checksumming", ""},
    {"scatter-gather", ""},
    {"tcp-segmentation-offload", ""},
    {"generic-segmentation-offload", "tx-generic-segmentation"},
    {"generic-receive-offload", "rx-gro"},
    {"large-receive-offload", "rx-lro"},
    {"rx-vlan-offload", "rx-vlan-hw-parse"},
    {"tx-vlan-offload", "tx-vlan-hw-insert"},
    {"ntuple-filters", "rx-ntuple-filter"},
    {"receive-hashing", "rx-hashing"}};

void NetworkComparison::CompareFeatures(InterfaceView interface, const std::string& name) {
    const std::string text = OutputOf("/usr/sbin/ethtool -k " + name).value_or("");
    const auto has = [&](uint32_t list, const std::string& feature) {
        const auto texts = interface.List(list);
        return std::find(texts.begin(), texts.end(), feature) != texts.end();
    };
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = Trim(TakeLine(rest));
        std::string feature(line.substr(0, line.find(':')));
        const std::string value(Trim(line.substr(std::min(feature.size() + 1, line.size()))));
        if (const auto old = kOldNames.find(feature); old != kOldNames.end()) feature = old->second;
        if (value.empty() || feature.empty()) continue;
        const bool isFixed = Contains(value, "[fixed]");
        EXPECT_EQ(value.starts_with("on"), has(KEMD_NETWORK_FEATURES, feature)) << line;
        EXPECT_EQ(!isFixed, has(KEMD_NETWORK_CHANGEABLE_FEATURES, feature)) << line;
        if (!isFixed) {
            const bool isWanted = Contains(value, "[requested on]") ||
                                  (value.starts_with("on") && !Contains(value, "[requested off]"));
            EXPECT_EQ(isWanted, has(KEMD_NETWORK_WANTED_FEATURES, feature)) << line;
        }
        compared += 3;
    }
}

// Fields by the option of ethtool and the words before the colon, with the section before them.
struct LinePair {
    const char* option;
    const char* key;
    uint32_t field;
};
constexpr LinePair kLines[] = {
    {"", "Speed", KEMD_NET_SPEED},
    {"", "Duplex", KEMD_NET_DUPLEX},
    {"", "Auto-negotiation", KEMD_NET_AUTO_NEGOTIATION},
    {"", "Lanes", KEMD_NET_LANES},
    {"", "Port", KEMD_NET_PORT},
    {"", "PHYAD", KEMD_NET_PHY_ADDRESS},
    {"", "Transceiver", KEMD_NET_TRANSCEIVER},
    {"", "Link detected", KEMD_NET_LINK_DETECTED},
    {"-i", "driver", KEMD_NET_DRIVER},
    {"-i", "version", KEMD_NET_DRIVER_VERSION},
    {"-i", "firmware-version", KEMD_NET_FIRMWARE},
    {"-i", "bus-info", KEMD_NET_BUS_ADDRESS},
    {"-a", "Autonegotiate", KEMD_NET_PAUSE_AUTO},
    {"-a", "RX", KEMD_NET_PAUSE_RX},
    {"-a", "TX", KEMD_NET_PAUSE_TX},
    {"-g", "Pre-set maximums/RX", KEMD_NET_RING_RX_MAX},
    {"-g", "Pre-set maximums/RX Mini", KEMD_NET_RING_RX_MINI_MAX},
    {"-g", "Pre-set maximums/RX Jumbo", KEMD_NET_RING_RX_JUMBO_MAX},
    {"-g", "Pre-set maximums/TX", KEMD_NET_RING_TX_MAX},
    {"-g", "Current hardware settings/RX", KEMD_NET_RING_RX},
    {"-g", "Current hardware settings/RX Mini", KEMD_NET_RING_RX_MINI},
    {"-g", "Current hardware settings/RX Jumbo", KEMD_NET_RING_RX_JUMBO},
    {"-g", "Current hardware settings/TX", KEMD_NET_RING_TX},
    {"-l", "Pre-set maximums/RX", KEMD_NET_CHANNELS_RX_MAX},
    {"-l", "Pre-set maximums/TX", KEMD_NET_CHANNELS_TX_MAX},
    {"-l", "Pre-set maximums/Other", KEMD_NET_CHANNELS_OTHER_MAX},
    {"-l", "Pre-set maximums/Combined", KEMD_NET_CHANNELS_COMBINED_MAX},
    {"-l", "Current hardware settings/RX", KEMD_NET_CHANNELS_RX},
    {"-l", "Current hardware settings/TX", KEMD_NET_CHANNELS_TX},
    {"-l", "Current hardware settings/Other", KEMD_NET_CHANNELS_OTHER},
    {"-l", "Current hardware settings/Combined", KEMD_NET_CHANNELS_COMBINED},
};

// ethtool's words as ours: "10000Mb/s" as "10000", "n/a" and "Unknown!" as none.
std::string Plain(std::string value) {
    value = Lower(value);
    if (value.starts_with("unknown!") || value == "n/a") return "";
    if (value == "on" || value == "yes") return "1";
    if (value == "off" || value == "no") return "0";
    const size_t unit = value.find("mb/s");
    return unit != std::string::npos ? value.substr(0, unit) : value;
}

// "KEY: VALUE" by key, with "SECTION/" where a line ends with its colon; lines without one go on.
std::map<std::string, std::string> KeysOf(const std::string& text) {
    std::map<std::string, std::string> values;
    std::string section;
    std::string* last = nullptr;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = Trim(TakeLine(rest));
        const size_t colon =
            line.find(": ") != std::string_view::npos ? line.find(": ") : line.find(":\t");
        if (line.ends_with(':')) {
            section = std::string(line.substr(0, line.size() - 1)) + "/";
            values[section.substr(0, section.size() - 1)] = "";
        } else if (colon != std::string_view::npos) {
            last = &values[section + std::string(line.substr(0, colon))];
            *last = Trim(line.substr(colon + 1));
        } else if (last != nullptr && !line.empty()) {
            last->append(" ").append(line);
        }
    }
    return values;
}

void NetworkComparison::CompareModes(InterfaceView interface, const std::string& key,
                                     const std::string& value) {
    const auto modes = [](const std::set<std::string>& all) {
        std::set<std::string> some;
        for (const std::string& one : all) {
            if (Contains(one, "base")) some.insert(one);
        }
        return some;
    };
    const auto compare = [&](uint32_t list) {
        const auto ours = interface.List(list);
        EXPECT_EQ(modes(Words(value)), modes({ours.begin(), ours.end()})) << key;
        ++compared;
    };
    const auto compareWake = [&](uint32_t list) {
        const std::map<std::string, char> letters = {
            {"phy", 'p'}, {"ucast", 'u'}, {"mcast", 'm'},       {"bcast", 'b'},
            {"arp", 'a'}, {"magic", 'g'}, {"magicsecure", 's'}, {"filter", 'f'}};
        std::string ours;
        for (const std::string& mode : interface.List(list)) ours += letters.at(mode);
        Same(value, ours.empty() ? "d" : ours, key);
    };
    if (key == "Supported link modes") compare(KEMD_NETWORK_SUPPORTED_MODES);
    if (key == "Advertised link modes") compare(KEMD_NETWORK_ADVERTISED_MODES);
    if (key == "Link partner advertised link modes") compare(KEMD_NETWORK_PEER_MODES);
    if (key == "Supports Wake-on") compareWake(KEMD_NETWORK_SUPPORTED_WAKE_MODES);
    if (key == "Wake-on") compareWake(KEMD_NETWORK_WAKE_MODES);
}

void NetworkComparison::CompareLines(InterfaceView interface, const std::string& option) {
    const auto text =
        OutputOf("/usr/sbin/ethtool " + option + " " + interface.TextOr(KEMD_NET_NAME));
    auto values = KeysOf(text ? *text : "");
    for (const auto& [ofOption, key, field] : kLines) {
        if (option != ofOption) continue;
        // The first line that ends with a colon is the title.
        std::string their;
        for (const auto& [name, value] : values) {
            if (name == key || name.ends_with(std::string("/") + key)) their = Plain(value);
        }
        // A bus of another kind is netlink's word.
        if (field == KEMD_NET_BUS_ADDRESS && their.empty()) continue;
        Same(their, Lower(interface.TextOr(field)), option + " " + key);
    }
    if (!option.empty()) return;
    for (const auto& [name, value] : values) {
        CompareModes(interface, name.substr(name.rfind('/') + 1), value);
    }
}

void NetworkComparison::CompareAll() {
    CompareLinks();
    if (HasFatalFailure()) return;
    // Hardware as it was taken with the links; of many interfaces the first.
    auto interfaces = view->Interfaces();
    constexpr size_t kMost = 20;
    if (interfaces.size() > kMost) interfaces.erase(interfaces.begin() + kMost, interfaces.end());
    for (const InterfaceView& interface : interfaces) {
        const std::string name = interface.TextOr(KEMD_NET_NAME);
        SCOPED_TRACE(name);
        for (const char* option : {"", "-i", "-a", "-g", "-l"}) CompareLines(interface, option);
        CompareFeatures(interface, name);
    }
    CompareAddresses();
    CompareRoutes();
    std::printf("%zu fields compared\n", compared);
}

class NetworkCompareTest : public NetworkComparison, public testing::WithParamInterface<World> {};

TEST_P(NetworkCompareTest, IsAsThePeersShowIt) {
    ASSERT_TRUE(
        Ip("link add p0 type veth peer name p1\nlink add q0 type veth peer name q1\n"
           "link set p0 addrgenmode none\nlink set p1 addrgenmode none"))
        << ReadFile("/tmp/ip.out");
    IP_OR_SKIP(GetParam().commands);
    CompareAll();
    EXPECT_GT(compared, 500U);
}

INSTANTIATE_TEST_SUITE_P(Worlds, NetworkCompareTest, testing::ValuesIn(kWorlds),
                         [](const auto& world) { return std::string(world.param.name); });

// Cards of the machine, when somebody put them into a name space of this name.
using NetworkCardsTest = NetworkComparison;

TEST_F(NetworkCardsTest, AreAsThePeersShowThem) {
    const UniqueFd cards(open("/run/netns/cards", O_RDONLY | O_CLOEXEC));
    if (!cards.IsOpen()) GTEST_SKIP() << "not run, no cards: there is no /run/netns/cards";
    ASSERT_EQ(setns(cards.Get(), CLONE_NEWNET), 0);
    CompareAll();
    EXPECT_GT(compared, 100U);
}

}  // namespace
