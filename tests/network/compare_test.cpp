// In each world the same as ip and ethtool show.
#include <arpa/inet.h>
#include <fnmatch.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>

#include "base/json.h"
#include "base/text.h"
#include "tests/network/network_world.h"

namespace {

// Nothing when it fails: ethtool does where the driver has no answer.
std::optional<std::string> OutputOf(const std::string& command) {
    if (std::system((command + " >/tmp/out 2>/tmp/err").c_str()) != 0) return std::nullopt;
    return ReadFile("/tmp/out");
}

JsonValue Json(const std::string& text) {
    std::string fault;
    auto value = ParseJson(text, fault);
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

// A member's member in small letters; "1" and "0" of a flag, "" when there is none.
std::string TextAt(const JsonValue& object, const std::string& path) {
    const JsonValue* value = Within(object, path);
    if (value == nullptr) return "";
    if (value->kind == JsonValue::kFlag) return value->flag ? "1" : "0";
    return Lower(value->text);
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

// What ip calls it, and the field's name.
constexpr const char* kPairs =
    "ifname name ifindex index operstate oper_state linkmode link_mode txqlen queue_length "
    "link_type type address mac permaddr permanent_mac ifalias alias mtu mtu min_mtu min_mtu "
    "max_mtu max_mtu qdisc qdisc group group broadcast broadcast promiscuity promiscuity "
    "allmulti allmulti gso_max_size gso_max_size gso_max_segs gso_max_segments "
    "num_tx_queues tx_queues num_rx_queues rx_queues parentbus bus parentdev bus_address "
    "phys_port_name port_name phys_port_id port_id phys_switch_id switch_id master master "
    "link_netnsid parent_name_space linkinfo.info_kind kind "
    "linkinfo.info_slave_kind member_kind stats64.rx.multicast multicast "
    "stats64.rx.nohandler rx_no_handler stats64.tx.collisions collisions "
    "stats64.tx.carrier_changes carrier_changes";
// The same in linkinfo.info_data and linkinfo.info_slave_data, of the kind that begins the name.
constexpr const char* kKindPairs =
    "mode bond_mode miimon bond_miimon active_slave bond_active primary bond_primary "
    "updelay bond_up_delay downdelay bond_down_delay xmit_hash_policy bond_hash "
    "ad_lacp_rate bond_lacp_rate id vlan_id protocol vlan_protocol mode macvlan_mode "
    "mode ipvlan_mode id vxlan_id port vxlan_port remote vxlan_remote local vxlan_local "
    "table vrf_table persist tun_persistent stp_state bridge_stp vlan_filtering bridge_vlans "
    "priority bridge_priority";
constexpr const char* kMemberPairs =
    "state bridge_port_state cost bridge_port_cost state bond_member_state "
    "mii_status bond_member_mii link_failure_count bond_member_failures "
    "perm_hwaddr bond_member_mac queue_id bond_member_queue "
    "ad_aggregator_id bond_member_aggregator";

// Addresses, routes and virtual functions: ours with the names that ip gives their members; flags
// are "1" or "".
using Members = std::vector<std::pair<std::string, std::string>>;

struct World {
    const char* name;
    std::string commands;
};
void PrintTo(const World& world, std::ostream* out) {
    *out << world.name;
}

// The first member has a link when it joins, so that it is the active one at once.
std::string Bond(const std::string& options) {
    return "link add o0 type bond miimon 50 " + options +
           "\nlink set p1 up\nlink set o0 up\nlink set p0 master o0\nlink set q0 master o0\n"
           "addr add 192.0.2.1/24 dev o0";
}

// So many that the drivers are not asked one by one.
std::string ManyPairs() {
    std::string commands = "link add b0 type bridge\nlink add b1 type bridge\nlink set p0 up";
    for (int i = 0; i < 20; ++i) commands += "\nlink add type veth";
    return commands;
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
    {"Bridge",
     "link add b0 type bridge stp_state 1 priority 4096\nlink set p0 master b0\n"
     "link set q0 master b0\nlink set p0 type bridge_slave cost 77\nlink set p0 up\n"
     "link set p1 up\nlink set b0 up"},
    {"BridgeVlans", "link add b0 type bridge vlan_filtering 1\nlink set b0 up"},
    {"BondActiveBackup",
     Bond("mode active-backup") + "\nlink set o0 type bond primary q0 updelay 100 downdelay 50"},
    {"Bond8023ad", Bond("mode 802.3ad lacp_rate fast xmit_hash_policy layer2+3")},
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
    {"Dummy", "link add d0 type dummy\nlink set d0 up\naddr add 192.0.2.1/24 dev d0"},
    {"Ifb", "link add f0 type ifb\nlink set f0 up"},
    {"Tun", "tuntap add t0 mode tun user 0\nlink set t0 up\naddr add 192.0.2.1/24 dev t0"},
    {"Tap", "tuntap add t0 mode tap group 0 multi_queue\nlink set t0 up"},
    {"Vrf",
     "link add v0 type vrf table 10\nlink set v0 up\nlink set p0 master v0\nlink set p0 up\n"
     "link set p1 up\naddr add 192.0.2.1/24 dev p0\nroute add default via 192.0.2.2 table 10"},
    {"Tunnels",
     "link add g0 type gre local 192.0.2.1 remote 192.0.2.9 key 7\nlink set g0 up\n"
     "link add g1 type gretap local 192.0.2.1 remote 192.0.2.9\n"
     "link add i0 type ipip local 192.0.2.1 remote 192.0.2.9\nlink set i0 up\n"
     "link add s0 type sit local 192.0.2.1 remote 192.0.2.9\nlink set s0 up\n"
     "link add g6 type ip6gre local 2001:db8::1 remote 2001:db8::9\nlink set g6 up\n"
     "link add t0 type ip6tnl local 2001:db8::1 remote 2001:db8::9"},
    {"Many", ManyPairs()},
    {"Renamed",
     "link set p0 name uplink\nlink set q0 name p0\nlink property add dev uplink altname " +
         std::string(127, 'n') + " altname " + std::string(127, 'm') +
         "\nlink set p1 up\nlink set uplink up"},
};

// Without the timers of bridges, which always run.
std::string Steady(const std::string& text) {
    return std::regex_replace(text, std::regex("_timer\":[0-9.]+"), "");
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
    void CompareFunctions(const JsonValue* list, InterfaceView interface);
    void CompareFlags(const JsonValue& link, InterfaceView interface);
    void CompareAddresses();
    void CompareRoutes();
    void CompareLines(InterfaceView interface, const std::string& option);
    void CompareFeatures(InterfaceView interface, const std::string& name);
    void CompareModes(InterfaceView interface, const std::string& name);
    void Same(const std::string& their, const std::string& our, std::string_view what) {
        EXPECT_EQ(their, our) << what;
        if (!their.empty()) ++compared;  // not what both lack
    }
    [[nodiscard]] std::string OurText(InterfaceView interface, uint32_t field,
                                      const JsonValue* their) const;
};

KemdNetworkFieldInfo InfoOf(uint32_t field) {
    KemdNetworkFieldInfo info{};
    info.size = sizeof info;
    EXPECT_EQ(KemdNetworkField(field, &info), 0);
    return info;
}

uint32_t FieldNamed(const std::string& name) {
    uint32_t field = 0;
    while (field < KEMD_NET_FIELDS && InfoOf(field).name != name) ++field;
    return field;
}

// As ip writes it: the name of another interface, a number where ip has one, "" when absent.
std::string NetworkComparison::OurText(InterfaceView interface, uint32_t field,
                                       const JsonValue* their) const {
    const auto number = interface.Number(field);
    if (InfoOf(field).kind == KEMD_NETWORK_KIND_INDEX) {
        const InterfaceView other = view->ByIndex(number.value_or(0));
        return other ? other.TextOr(KEMD_NET_NAME) : "";
    }
    if (number && their != nullptr && their->kind == JsonValue::kNumber) {
        return std::to_string(*number);
    }
    return Lower(interface.TextOr(field));
}

// As the library says it where ip leaves it out, or shows something for none.
std::string TheirText(const JsonValue& link, const std::string& path, uint32_t field,
                      const std::string& our) {
    const std::string their = TextAt(link, path);
    if (field == KEMD_NET_GROUP && their == "default") return "0";
    if (field == KEMD_NET_MAX_MTU && their == "0") return "";
    if (field == KEMD_NET_KIND) {
        if (their.empty()) return TextAt(link, "link_type") == "loopback" ? "loopback" : "physical";
        return their == "tun" ? TextAt(link, "linkinfo.info_data.type") : their;
    }
    // Of a virtio device ip shows the bus within the PCI function; tun and tap have no bus.
    const bool isOfBus = field == KEMD_NET_BUS || field == KEMD_NET_BUS_ADDRESS;
    if (isOfBus && (their.empty() || TextAt(link, "parentbus") == "virtio")) return our;
    // ip shows at most 31 bytes.
    constexpr size_t kMostDigits = 62;
    if (field == KEMD_NET_SWITCH_ID && their.size() == kMostDigits && our.starts_with(their)) {
        return our;
    }
    if (!their.empty()) return their;
    if (field == KEMD_NET_PERMANENT_MAC && !our.empty()) return TextAt(link, "address");
    if (field == KEMD_NET_VXLAN_REMOTE && our.find(':') == our.npos) {
        return TextAt(link, "linkinfo.info_data.group");
    }
    return our == "0" ? "0" : TextAt(link, path + "6");
}

void NetworkComparison::CompareLink(const JsonValue& link, InterfaceView interface) {
    const auto compare = [&](const std::string& path, const std::string& name) {
        const uint32_t field = FieldNamed(name);
        const std::string our = OurText(interface, field, Within(link, path));
        Same(TheirText(link, path, field, our), our, path);
    };
    const auto compareAll = [&](const char* pairs, const std::string& prefix,
                                const std::string& kind) {
        std::istringstream words(pairs);
        for (std::string path, name; words >> path >> name;) {
            if (name.starts_with(kind)) compare(prefix + path, name);
        }
    };
    compareAll(kPairs, "", "");
    // What carries a vxlan is among the data of its kind.
    const bool isVxlan = TextAt(link, "linkinfo.info_kind") == "vxlan";
    compare(isVxlan ? "linkinfo.info_data.link" : "link", "parent");
    for (uint32_t field = KEMD_NET_RX_PACKETS; field < KEMD_NET_RX_NO_HANDLER; ++field) {
        const std::string name = InfoOf(field).name;  // "rx_bytes"
        if (name[2] == '_') compare("stats64." + name.substr(0, 2) + "." + name.substr(3), name);
    }
    for (const std::string of : {"linkinfo.info_", "linkinfo.info_slave_"}) {
        const std::string kind = TextAt(link, of + "kind");
        const char* pairs = of.ends_with("slave_") ? kMemberPairs : kKindPairs;
        if (!kind.empty()) compareAll(pairs, of + "data.", kind + "_");
    }
    CompareFunctions(link.Find("vfinfo_list"), interface);
    const JsonValue* names = link.Find("altnames");
    const auto ours = interface.List(KEMD_NETWORK_ALTERNATIVE_NAMES);
    EXPECT_EQ(names != nullptr ? Words(*names) : std::set<std::string>(),
              std::set<std::string>(ours.begin(), ours.end()));
    CompareFlags(link, interface);
}

// The members as ip names them; of the VLANs only the first is shown.
Members MembersOf(const KemdNetworkVirtualFunction& our) {
    std::string mac;
    for (uint32_t i = 0; i < our.macLength; ++i) {
        char part[4];
        std::snprintf(part, sizeof part, i == 0 ? "%02x" : ":%02x", our.mac[i]);
        mac += part;
    }
    const auto number = [](auto value) { return std::to_string(value); };
    return {{"vf", number(our.number)},
            {"address", mac},
            {"vlan", our.vlan > 0 ? number(our.vlan) : ""},
            {"qos", our.vlanPriority > 0 ? number(our.vlanPriority) : ""},
            {"rate.max_tx", number(our.maxRate)},
            {"rate.min_tx", number(our.minRate)},
            {"spoofchk", number(our.isSpoofChecked)},
            {"trust", number(our.isTrusted)},
            {"link_state", our.linkState == 1   ? "enable"
                           : our.linkState == 2 ? "disable"
                                                : "auto"},
            {"stats.rx.bytes", number(our.rxBytes)},
            {"stats.rx.packets", number(our.rxPackets)},
            {"stats.rx.dropped", number(our.rxDropped)},
            {"stats.rx.multicast", number(our.multicast)},
            {"stats.rx.broadcast", number(our.broadcast)},
            {"stats.tx.tx_bytes", number(our.txBytes)},
            {"stats.tx.tx_packets", number(our.txPackets)},
            {"stats.tx.dropped", number(our.txDropped)}};
}

void NetworkComparison::CompareFunctions(const JsonValue* list, InterfaceView interface) {
    const auto ours = interface.VirtualFunctions();
    ASSERT_EQ(list != nullptr ? list->elements.size() : 0, ours.size());
    for (size_t i = 0; i < ours.size(); ++i) {
        const JsonValue& function = list->elements[i];
        const JsonValue& vlan = function.Find("vlan_list")->elements[0];
        Members their = MembersOf(ours[i]);
        for (auto& [name, value] : their) {
            value = TextAt(name == "vlan" || name == "qos" ? vlan : function, name);
        }
        EXPECT_EQ(their, MembersOf(ours[i]));
        compared += their.size();
    }
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
        const auto index = static_cast<uint64_t>(link.NumberOf("ifindex").value());
        ASSERT_TRUE(view->ByIndex(index));
        SCOPED_TRACE(TextAt(link, "ifname"));
        CompareLink(link, view->ByIndex(index));
    }
}

struct FlagName {
    uint32_t flag = 0;
    const char* name = nullptr;
};
constexpr FlagName kAddressFlags[] = {{IFA_F_NODAD, "nodad"},
                                      {IFA_F_HOMEADDRESS, "home"},
                                      {IFA_F_DEPRECATED, "deprecated"},
                                      {IFA_F_TENTATIVE, "tentative"},
                                      {IFA_F_MANAGETEMPADDR, "mngtmpaddr"},
                                      {IFA_F_NOPREFIXROUTE, "noprefixroute"}};
constexpr FlagName kRouteFlags[] = {{RTNH_F_DEAD, "dead"},
                                    {RTNH_F_PERVASIVE, "pervasive"},
                                    {RTNH_F_ONLINK, "onlink"},
                                    {RTNH_F_LINKDOWN, "linkdown"}};
// Where ip leaves the member out.
const std::map<std::string, std::string> kDefaults = {{"metric", "0"}, {"protocol", "3"},
                                                      {"scope", "0"},  {"table", "254"},
                                                      {"type", "1"},   {"weight", "0"}};

Members MembersOf(const KemdNetworkAddress& our) {
    const auto text = [&](bool isThere, const uint8_t* bytes) {
        return isThere ? AddressText(our.family, bytes) : "";
    };
    Members members = {{"local", text(true, our.address)},
                       {"prefixlen", std::to_string(our.prefix)},
                       {"scope", std::to_string(our.scope)},
                       {"label", our.label},
                       {"address", text(our.hasPeer != 0, our.peer)},
                       {"broadcast", text(our.hasBroadcast != 0, our.broadcast)},
                       {"valid_life_time", std::to_string(our.validSeconds)},
                       {"preferred_life_time", std::to_string(our.preferredSeconds)},
                       {"metric", std::to_string(our.metric)},
                       {"dynamic", (our.flags & IFA_F_PERMANENT) == 0 ? "1" : ""}};
    const char* secondary = our.family == AF_INET6 ? "temporary" : "secondary";
    members.emplace_back(secondary, (our.flags & IFA_F_SECONDARY) != 0 ? "1" : "");
    for (const auto& [flag, name] : kAddressFlags) {
        members.emplace_back(name, (our.flags & flag) != 0 ? "1" : "");
    }
    return members;
}

Members MembersOf(const KemdNetworkRoute& our, InterfaceView interface) {
    const std::string gateway = AddressText(our.gatewayFamily, our.gateway);
    const bool isOther = our.gatewayFamily != our.family;
    Members members = {{"type", std::to_string(our.type)},
                       {"table", std::to_string(our.table)},
                       {"metric", std::to_string(our.metric)},
                       {"protocol", std::to_string(our.protocol)},
                       {"scope", std::to_string(our.scope)},
                       {"prefsrc", our.hasSource != 0 ? AddressText(our.family, our.source) : ""},
                       {"dev", interface ? interface.TextOr(KEMD_NET_NAME) : ""},
                       {"gateway", isOther ? "" : gateway},
                       {"via.host", isOther ? gateway : ""},
                       {"weight", std::to_string(our.weight)}};
    for (const auto& [flag, name] : kRouteFlags) {
        members.emplace_back(name, (our.flags & flag) != 0 ? "1" : "");
    }
    return members;
}

// The members of these names; those of one hop come before the whole route's.
Members TheirMembers(const JsonValue& whole, const JsonValue& hop, Members names) {
    const JsonValue* flags = hop.Find("flags");
    for (auto& [name, value] : names) {
        value = TextAt(hop, name);
        if (value.empty()) value = TextAt(whole, name);
        if (flags != nullptr && Words(*flags).contains(name)) value = "1";
        const auto byDefault = kDefaults.find(name);
        if (value.empty() && byDefault != kDefaults.end()) value = byDefault->second;
    }
    return names;
}

void NetworkComparison::CompareAddresses() {
    ASSERT_NO_FATAL_FAILURE(TakeWith("/usr/sbin/ip -N -j addr", KEMD_NETWORK_ADDRESSES));
    const JsonValue links = Json(theirs);
    for (const JsonValue& link : links.elements) {
        const auto index = static_cast<uint64_t>(link.NumberOf("ifindex").value());
        const auto ours = view->ByIndex(index).Addresses();
        const auto& addresses = link.Find("addr_info")->elements;
        ASSERT_EQ(addresses.size(), ours.size()) << index;
        for (size_t i = 0; i < ours.size(); ++i) {
            const Members our = MembersOf(ours[i]);
            EXPECT_EQ(TheirMembers(addresses[i], addresses[i], our), our);
            compared += our.size();
        }
    }
}

void NetworkComparison::CompareRoutes() {
    const Members names = MembersOf(KemdNetworkRoute{}, nullptr);
    std::vector<Members> their;
    for (const char* family : {"-4", "-6"}) {
        TakeWith(std::string("/usr/sbin/ip -N -j -d ") + family + " route show table all default",
                 KEMD_NETWORK_ROUTES);
        if (HasFatalFailure()) return;
        const JsonValue routes = Json(theirs);
        for (const JsonValue& route : routes.elements) {
            if (route.Find("from") != nullptr) continue;  // not for every packet
            const JsonValue* hops = route.Find("nexthops");
            if (hops == nullptr) their.push_back(TheirMembers(route, route, names));
            for (size_t i = 0; hops != nullptr && i < hops->elements.size(); ++i) {
                their.push_back(TheirMembers(route, hops->elements[i], names));
            }
        }
    }
    std::vector<Members> ours;
    const auto routes = view->Routes();
    for (const auto& route : routes) {
        ours.push_back(MembersOf(route, view->ByIndex(route.interface)));
        compared += names.size();
    }
    EXPECT_TRUE(std::is_sorted(routes.begin(), routes.end(), [](const auto& a, const auto& b) {
        return std::tie(a.family, a.table, a.metric) < std::tie(b.family, b.table, b.metric);
    }));
    std::sort(their.begin(), their.end());
    std::sort(ours.begin(), ours.end());
    EXPECT_EQ(their, ours);
}

// "KEY: VALUE" by "SECTION/KEY", where a section is a line that ends with its colon; lines without
// one go on.
std::map<std::string, std::string> KeysOf(const std::string& text) {
    std::map<std::string, std::string> values;
    std::string section;
    std::string* last = nullptr;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = Trim(TakeLine(rest));
        const size_t colon = std::min(line.find(": "), line.find(":\t"));
        if (line.ends_with(':')) {
            section = line.substr(0, line.size() - 1);
        } else if (colon != line.npos) {
            last = &values[section + "/" + std::string(line.substr(0, colon))];
            *last = Trim(line.substr(colon + 1));
        } else if (last != nullptr && !line.empty()) {
            last->append(" ").append(line);
        }
    }
    return values;
}

// For which ethtool has an older name than the kernel, for one or a group.
const std::map<std::string, std::string> kOldNames = {
    {"rx-checksumming", "rx-checksum"},
    {"tx-checksumming", "tx-checksum-*"},
    {"scatter-gather", "tx-scatter-gather*"},
    {"tcp-segmentation-offload", "tx-tcp*-segmentation"},
    {"generic-segmentation-offload", "tx-generic-segmentation"},
    {"generic-receive-offload", "rx-gro"},
    {"large-receive-offload", "rx-lro"},
    {"rx-vlan-offload", "rx-vlan-hw-parse"},
    {"tx-vlan-offload", "tx-vlan-hw-insert"},
    {"ntuple-filters", "rx-ntuple-filter"},
    {"receive-hashing", "rx-hashing"}};

bool IsAnyLike(const std::vector<std::string>& texts, const char* pattern) {
    return std::any_of(texts.begin(), texts.end(), [pattern](const std::string& text) {
        return fnmatch(pattern, text.c_str(), 0) == 0;
    });
}

void NetworkComparison::CompareFeatures(InterfaceView interface, const std::string& name) {
    const auto values = KeysOf(OutputOf("/usr/sbin/ethtool -k " + name).value_or(""));
    const auto features = interface.List(KEMD_NETWORK_FEATURES);
    for (const auto& [key, value] : values) {
        const std::string feature = key.substr(key.find('/') + 1);
        const bool isOn = value.starts_with("on");
        if (const auto old = kOldNames.find(feature); old != kOldNames.end()) {
            const char* const pattern = old->second.c_str();
            EXPECT_EQ(isOn, IsAnyLike(features, pattern)) << feature;
            ++compared;
            continue;
        }
        const bool isFixed = Contains(value, "[fixed]");
        const auto compare = [&](bool their, uint32_t list) {
            const auto ours = interface.List(list);
            EXPECT_EQ(their, std::count(ours.begin(), ours.end(), feature) != 0) << feature;
            ++compared;
        };
        compare(isOn, KEMD_NETWORK_FEATURES);
        compare(!isFixed, KEMD_NETWORK_CHANGEABLE_FEATURES);
        const bool isOther = Contains(value, isOn ? "[requested off]" : "[requested on]");
        if (!isFixed) compare(isOn != isOther, KEMD_NETWORK_WANTED_FEATURES);
    }
}

// Fields by the option of ethtool and the words before the colon; with two of them, the second is
// the most that the hardware can.
struct LinePair {
    const char* option = nullptr;
    const char* key = nullptr;
    uint32_t field = 0;
    uint32_t most = 0;
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
    {"-g", "RX", KEMD_NET_RING_RX, KEMD_NET_RING_RX_MAX},
    {"-g", "RX Mini", KEMD_NET_RING_RX_MINI, KEMD_NET_RING_RX_MINI_MAX},
    {"-g", "RX Jumbo", KEMD_NET_RING_RX_JUMBO, KEMD_NET_RING_RX_JUMBO_MAX},
    {"-g", "TX", KEMD_NET_RING_TX, KEMD_NET_RING_TX_MAX},
    {"-l", "RX", KEMD_NET_CHANNELS_RX, KEMD_NET_CHANNELS_RX_MAX},
    {"-l", "TX", KEMD_NET_CHANNELS_TX, KEMD_NET_CHANNELS_TX_MAX},
    {"-l", "Other", KEMD_NET_CHANNELS_OTHER, KEMD_NET_CHANNELS_OTHER_MAX},
    {"-l", "Combined", KEMD_NET_CHANNELS_COMBINED, KEMD_NET_CHANNELS_COMBINED_MAX},
};

// ethtool's words as ours: "10000Mb/s" as "10000", "n/a" and "Unknown!" as none.
std::string Plain(std::string value) {
    value = Lower(value);
    if (value.starts_with("unknown!") || value == "n/a") return "";
    if (value == "on" || value == "yes") return "1";
    if (value == "off" || value == "no") return "0";
    return value.substr(0, value.find("mb/s"));
}

void NetworkComparison::CompareLines(InterfaceView interface, const std::string& option) {
    const auto text =
        OutputOf("/usr/sbin/ethtool " + option + " " + interface.TextOr(KEMD_NET_NAME));
    const auto values = KeysOf(text.value_or(""));
    const auto compare = [&](const std::string& end, uint32_t field) {
        std::string their;
        for (const auto& [name, value] : values) {
            if (name.ends_with(end)) their = Plain(value);
        }
        // A bus of another kind is netlink's word.
        if (field == KEMD_NET_BUS_ADDRESS && their.empty()) return;
        Same(their, Lower(std::string(Trim(interface.TextOr(field)))), option + " " + end);
    };
    for (const auto& [ofOption, key, field, most] : kLines) {
        if (option != ofOption) continue;
        const std::string end = std::string("/") + key;
        compare(most != 0 ? "Current hardware settings" + end : end, field);
        if (most != 0) compare("Pre-set maximums" + end, most);
    }
}

// The words of ethtool's lines by the list that has them; "Autoneg" stands for a line of its own.
struct ModeLine {
    const char* key;
    uint32_t list;
    bool (*isOfLine)(const std::string& mode);
};
bool IsMode(const std::string& mode) {
    return Contains(mode, "base");
}
bool IsPort(const std::string& mode) {
    static const std::set<std::string> ports = Words("TP AUI MII FIBRE BNC Backplane");
    return ports.contains(mode);
}
bool IsAutoNegotiation(const std::string& mode) {
    return mode == "Autoneg";
}
constexpr ModeLine kModeLines[] = {
    {"/Supported ports", KEMD_NETWORK_SUPPORTED_MODES, IsPort},
    {"/Supported link modes", KEMD_NETWORK_SUPPORTED_MODES, IsMode},
    {"/Supports auto-negotiation", KEMD_NETWORK_SUPPORTED_MODES, IsAutoNegotiation},
    {"/Advertised link modes", KEMD_NETWORK_ADVERTISED_MODES, IsMode},
    {"/Advertised auto-negotiation", KEMD_NETWORK_ADVERTISED_MODES, IsAutoNegotiation},
    {"/Link partner advertised link modes", KEMD_NETWORK_PEER_MODES, IsMode},
    {"/Link partner advertised auto-negotiation", KEMD_NETWORK_PEER_MODES, IsAutoNegotiation},
};
// Letters of ethtool, and the kernel's names.
constexpr std::pair<char, const char*> kWakeModes[] = {
    {'p', "phy"}, {'u', "ucast"}, {'m', "mcast"},       {'b', "bcast"},
    {'a', "arp"}, {'g', "magic"}, {'s', "magicsecure"}, {'f', "filter"}};

std::set<std::string> WakeWords(const std::string& letters) {
    std::set<std::string> words;
    for (const auto& [letter, word] : kWakeModes) {
        if (letters.find(letter) != letters.npos) words.insert(word);
    }
    return words;
}

std::string WordOf(const std::map<std::string, std::string>& values, std::string_view end) {
    for (const auto& [name, value] : values) {
        if (name.ends_with(end)) return value;
    }
    return "";
}

void NetworkComparison::CompareModes(InterfaceView interface, const std::string& name) {
    const auto values = KeysOf(OutputOf("/usr/sbin/ethtool " + name).value_or(""));
    for (const auto& [key, list, isOfLine] : kModeLines) {
        std::string value = WordOf(values, key);
        if (value == "Yes") value = "Autoneg";
        std::set<std::string> their = Words(value);
        for (const char* none : {"[", "]", "Not", "reported", "No"}) their.erase(none);
        std::set<std::string> ours;
        for (const std::string& mode : interface.List(list)) {
            if (isOfLine(mode)) ours.insert(mode);
        }
        EXPECT_EQ(their, ours) << key;
        compared += their.size();
    }
    const auto compareWake = [&](const char* end, uint32_t list) {
        const std::set<std::string> their = WakeWords(WordOf(values, end));
        const auto ours = interface.List(list);
        EXPECT_EQ(their, std::set<std::string>(ours.begin(), ours.end())) << end;
        compared += their.size();
    };
    compareWake("/Supports Wake-on", KEMD_NETWORK_SUPPORTED_WAKE_MODES);
    compareWake("/Wake-on", KEMD_NETWORK_WAKE_MODES);
}

void NetworkComparison::CompareAll() {
    CompareLinks();
    if (HasFatalFailure()) return;
    // Hardware as it was taken with the links.
    for (const InterfaceView& interface : view->Interfaces()) {
        const std::string name = interface.TextOr(KEMD_NET_NAME);
        SCOPED_TRACE(name);
        for (const char* option : {"", "-i", "-a", "-g", "-l"}) CompareLines(interface, option);
        CompareFeatures(interface, name);
        CompareModes(interface, name);
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

// "KEY VALUE" and " INDEX: NAME: VALUE" of teamnl.
std::string Teamnl(const std::string& words) {
    return std::string(Trim(OutputOf("/usr/bin/teamnl " + words).value_or("")));
}

TEST_F(NetworkComparison, TeamsAreAsTeamnlShowsThem) {
    ASSERT_TRUE(
        Ip("link add p0 type veth peer name p1\nlink add q0 type veth peer name q1\n"
           "link set p1 up\nlink set p0 addrgenmode none\nlink set q0 addrgenmode none"));
    IP_OR_SKIP("link add t0 type team");
    if (access("/usr/bin/teamnl", X_OK) != 0) GTEST_SKIP() << "not run, there is no teamnl";
    size_t size = 0;
    if (KemdNetworkText(Take().ByName("t0").Get(), KEMD_NET_TEAM_MODE, nullptr, &size) == EPERM) {
        GTEST_SKIP() << "not run, only root of the machine may ask about teams";
    }
    ASSERT_TRUE(OutputOf("/usr/bin/teamnl t0 setoption mode activebackup"));
    ASSERT_TRUE(Ip("link set p0 master t0\nlink set q0 master t0\nlink set t0 up"));
    const uint64_t index = Take(0).ByName("p0").Number(KEMD_NET_INDEX).value();
    ASSERT_TRUE(OutputOf("/usr/bin/teamnl t0 setoption activeport " + std::to_string(index)));
    ASSERT_TRUE(OutputOf("/usr/bin/teamnl -p q0 t0 setoption enabled false"));
    view.emplace(Take());
    const InterfaceView team = view->ByName("t0");
    EXPECT_EQ(team.TextOr(KEMD_NET_TEAM_MODE), Teamnl("t0 getoption mode"));
    EXPECT_EQ(team.TextOr(KEMD_NET_TEAM_ACTIVE), Teamnl("t0 getoption activeport"));
    const std::string ports = Teamnl("t0 ports");
    for (const std::string name : {"p0", "q0"}) {
        const InterfaceView member = view->ByName(name.c_str());
        EXPECT_EQ(member.TextOr(KEMD_NET_TEAM_MEMBER_ENABLED) == "1" ? "true" : "false",
                  Teamnl("-p " + name + " t0 getoption enabled"));
        const bool isUp = member.TextOr(KEMD_NET_TEAM_MEMBER_LINK) == "1";
        EXPECT_TRUE(Contains(ports, name + (isUp ? ": up" : ": down"))) << ports;
    }
    CompareAll();
}

}  // namespace
