// RTM_NEWLINK, but for the virtual functions.
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>

#include "network/attribute_table.h"
#include "network/messages.h"

namespace {

using Form = AttributeForm;

constexpr AttributeRow kLinkRows[] = {
    {IFLA_IFNAME, KEMD_NET_NAME, Form::kText},
    {IFLA_IFALIAS, KEMD_NET_ALIAS, Form::kText},
    {IFLA_OPERSTATE, KEMD_NET_OPER_STATE},
    {IFLA_LINKMODE, KEMD_NET_LINK_MODE},
    {IFLA_CARRIER, KEMD_NET_CARRIER},
    {IFLA_CARRIER_CHANGES, KEMD_NET_CARRIER_CHANGES},
    {IFLA_CARRIER_UP_COUNT, KEMD_NET_CARRIER_UPS},
    {IFLA_CARRIER_DOWN_COUNT, KEMD_NET_CARRIER_DOWNS},
    {IFLA_PROTO_DOWN, KEMD_NET_PROTO_DOWN},
    {IFLA_PROMISCUITY, KEMD_NET_PROMISCUITY},
    {IFLA_ALLMULTI, KEMD_NET_ALLMULTI},
    {IFLA_MTU, KEMD_NET_MTU},
    {IFLA_MIN_MTU, KEMD_NET_MIN_MTU},
    {IFLA_MAX_MTU, KEMD_NET_MAX_MTU, Form::kPositive},
    {IFLA_ADDRESS, KEMD_NET_MAC, Form::kHardwareAddress},
    {IFLA_BROADCAST, KEMD_NET_BROADCAST, Form::kHardwareAddress},
    {IFLA_PERM_ADDRESS, KEMD_NET_PERMANENT_MAC, Form::kHardwareAddress},
    {IFLA_QDISC, KEMD_NET_QDISC, Form::kText},
    {IFLA_TXQLEN, KEMD_NET_QUEUE_LENGTH},
    {IFLA_GROUP, KEMD_NET_GROUP},
    {IFLA_NUM_TX_QUEUES, KEMD_NET_TX_QUEUES},
    {IFLA_NUM_RX_QUEUES, KEMD_NET_RX_QUEUES},
    {IFLA_GSO_MAX_SIZE, KEMD_NET_GSO_MAX_SIZE},
    {IFLA_GSO_MAX_SEGS, KEMD_NET_GSO_MAX_SEGMENTS},
    {IFLA_LINK, KEMD_NET_PARENT, Form::kPositive},
    {IFLA_LINK_NETNSID, KEMD_NET_PARENT_NAME_SPACE, Form::kKnown},
    {IFLA_MASTER, KEMD_NET_MASTER, Form::kPositive},
    {IFLA_PHYS_PORT_NAME, KEMD_NET_PORT_NAME, Form::kText},
    {IFLA_PHYS_PORT_ID, KEMD_NET_PORT_ID, Form::kHexadecimal},
    {IFLA_PHYS_SWITCH_ID, KEMD_NET_SWITCH_ID, Form::kHexadecimal},
    {IFLA_PARENT_DEV_NAME, KEMD_NET_BUS_ADDRESS, Form::kText},
    {IFLA_PARENT_DEV_BUS_NAME, KEMD_NET_BUS, Form::kText},
};
constexpr AttributeTable kLinkTable(kLinkRows);
constexpr AttributeRow kVlanRows[] = {
    {IFLA_VLAN_ID, KEMD_NET_VLAN_ID},
    {IFLA_VLAN_PROTOCOL, KEMD_NET_VLAN_PROTOCOL, Form::kNetworkNumber},
};
constexpr AttributeTable kVlanTable(kVlanRows);
constexpr AttributeRow kMacvlanRows[] = {{IFLA_MACVLAN_MODE, KEMD_NET_MACVLAN_MODE}};
constexpr AttributeTable kMacvlanTable(kMacvlanRows);
constexpr AttributeRow kIpvlanRows[] = {{IFLA_IPVLAN_MODE, KEMD_NET_IPVLAN_MODE}};
constexpr AttributeTable kIpvlanTable(kIpvlanRows);
constexpr AttributeRow kVxlanRows[] = {
    {IFLA_VXLAN_ID, KEMD_NET_VXLAN_ID},
    {IFLA_VXLAN_LINK, KEMD_NET_PARENT, Form::kPositive},  // without IFLA_LINK
    {IFLA_VXLAN_PORT, KEMD_NET_VXLAN_PORT, Form::kNetworkNumber},
    {IFLA_VXLAN_GROUP, KEMD_NET_VXLAN_REMOTE, Form::kIpAddress},
    {IFLA_VXLAN_GROUP6, KEMD_NET_VXLAN_REMOTE, Form::kIpAddress},
    {IFLA_VXLAN_LOCAL, KEMD_NET_VXLAN_LOCAL, Form::kIpAddress},
    {IFLA_VXLAN_LOCAL6, KEMD_NET_VXLAN_LOCAL, Form::kIpAddress},
};
constexpr AttributeTable kVxlanTable(kVxlanRows);
constexpr AttributeRow kTunRows[] = {
    {IFLA_TUN_OWNER, KEMD_NET_TUN_OWNER, Form::kKnown},
    {IFLA_TUN_GROUP, KEMD_NET_TUN_GROUP, Form::kKnown},
    {IFLA_TUN_PERSIST, KEMD_NET_TUN_PERSISTENT},
};
constexpr AttributeTable kTunTable(kTunRows);
constexpr AttributeRow kVrfRows[] = {{IFLA_VRF_TABLE, KEMD_NET_VRF_TABLE}};
constexpr AttributeTable kVrfTable(kVrfRows);
constexpr AttributeRow kBridgeRows[] = {
    {IFLA_BR_STP_STATE, KEMD_NET_BRIDGE_STP},
    {IFLA_BR_VLAN_FILTERING, KEMD_NET_BRIDGE_VLANS},
    {IFLA_BR_PRIORITY, KEMD_NET_BRIDGE_PRIORITY},
};
constexpr AttributeTable kBridgeTable(kBridgeRows);
constexpr AttributeRow kBridgePortRows[] = {
    {IFLA_BRPORT_STATE, KEMD_NET_BRIDGE_PORT_STATE},
    {IFLA_BRPORT_COST, KEMD_NET_BRIDGE_PORT_COST},
};
constexpr AttributeTable kBridgePortTable(kBridgePortRows);
constexpr AttributeRow kBondRows[] = {
    {IFLA_BOND_MODE, KEMD_NET_BOND_MODE},
    {IFLA_BOND_MIIMON, KEMD_NET_BOND_MIIMON},
    {IFLA_BOND_ACTIVE_SLAVE, KEMD_NET_BOND_ACTIVE, Form::kPositive},
    {IFLA_BOND_PRIMARY, KEMD_NET_BOND_PRIMARY, Form::kPositive},
    {IFLA_BOND_UPDELAY, KEMD_NET_BOND_UP_DELAY},
    {IFLA_BOND_DOWNDELAY, KEMD_NET_BOND_DOWN_DELAY},
    {IFLA_BOND_XMIT_HASH_POLICY, KEMD_NET_BOND_HASH},
    {IFLA_BOND_AD_LACP_RATE, KEMD_NET_BOND_LACP_RATE},
};
constexpr AttributeTable kBondTable(kBondRows);
constexpr AttributeRow kBondMemberRows[] = {
    {IFLA_BOND_SLAVE_STATE, KEMD_NET_BOND_MEMBER_STATE},
    {IFLA_BOND_SLAVE_MII_STATUS, KEMD_NET_BOND_MEMBER_MII},
    {IFLA_BOND_SLAVE_LINK_FAILURE_COUNT, KEMD_NET_BOND_MEMBER_FAILURES},
    {IFLA_BOND_SLAVE_PERM_HWADDR, KEMD_NET_BOND_MEMBER_MAC, Form::kHardwareAddress},
    {IFLA_BOND_SLAVE_QUEUE_ID, KEMD_NET_BOND_MEMBER_QUEUE},
    {IFLA_BOND_SLAVE_AD_AGGREGATOR_ID, KEMD_NET_BOND_MEMBER_AGGREGATOR},
};
constexpr AttributeTable kBondMemberTable(kBondMemberRows);

struct KindTable {
    std::string_view kind;
    const AttributeTable* attributes;
};
constexpr KindTable kKinds[] = {{"vlan", &kVlanTable},       {"macvlan", &kMacvlanTable},
                                {"macvtap", &kMacvlanTable}, {"ipvlan", &kIpvlanTable},
                                {"ipvtap", &kIpvlanTable},   {"vxlan", &kVxlanTable},
                                {"tun", &kTunTable},         {"vrf", &kVrfTable},
                                {"bridge", &kBridgeTable},   {"bond", &kBondTable}};
constexpr KindTable kMemberKinds[] = {{"bridge", &kBridgePortTable}, {"bond", &kBondMemberTable}};

void ReadByKind(KemdNetworkInterface& interface, std::string_view kind, const Attribute& data,
                std::span<const KindTable> tables) {
    for (const KindTable& table : tables) {
        if (table.kind == kind) ReadByTable(interface, Attributes(data.bytes), *table.attributes);
    }
}

void ReadLinkInfo(KemdNetworkInterface& interface, const Attributes& info) {
    const std::string_view kind = info.Find(IFLA_INFO_KIND).Text();
    const Attribute data = info.Find(IFLA_INFO_DATA);
    ReadByKind(interface, kind, data, kKinds);
    if (!kind.empty()) interface.SetText(KEMD_NET_KIND, kind);
    if (kind == "tun" && Attributes(data.bytes).Find(IFLA_TUN_TYPE).Number() == IFF_TAP) {
        interface.SetText(KEMD_NET_KIND, "tap");
    }
    const std::string_view memberKind = info.Find(IFLA_INFO_SLAVE_KIND).Text();
    ReadByKind(interface, memberKind, info.Find(IFLA_INFO_SLAVE_DATA), kMemberKinds);
    if (!memberKind.empty()) interface.SetText(KEMD_NET_MEMBER_KIND, memberKind);
}

// What the kernel gives no kind is a loopback or has a driver of its own.
void SetOtherKind(KemdNetworkInterface& interface) {
    if (interface.Has(KEMD_NET_KIND)) return;
    const bool isLoopback = interface.Number(KEMD_NET_TYPE) == ARPHRD_LOOPBACK;
    interface.SetText(KEMD_NET_KIND, isLoopback ? "loopback" : "physical");
}

// In the order of the kernel's structure; an older kernel's is shorter.
void ReadCounters(KemdNetworkInterface& interface, std::string_view bytes) {
    for (uint32_t field = KEMD_NET_RX_PACKETS; field <= KEMD_NET_RX_OTHER_HOST_DROPPED; ++field) {
        const auto value = HeaderOf<uint64_t>(bytes);
        if (!value) return;
        interface.Set(field, *value);
        bytes.remove_prefix(sizeof *value);
    }
}

void ReadNames(KemdNetworkInterface& interface, const Attributes& list) {
    for (const Attribute& property : list) {
        if (property.type == IFLA_ALT_IFNAME) {
            interface.alternativeNames.emplace_back(property.Text());
        }
    }
}

}  // namespace

std::shared_ptr<KemdNetworkInterface> ReadLink(std::string_view payload,
                                               const std::shared_ptr<const NetworkFacts>& facts) {
    const auto header = HeaderOf<ifinfomsg>(payload);
    if (!header || header->ifi_index <= 0) return nullptr;
    auto interface = std::make_shared<KemdNetworkInterface>(facts);
    interface->Set(KEMD_NET_INDEX, static_cast<uint32_t>(header->ifi_index));
    interface->Set(KEMD_NET_TYPE, header->ifi_type);
    interface->Set(KEMD_NET_FLAGS, header->ifi_flags);
    const Attributes attributes(AfterHeader(payload, sizeof *header));
    for (const Attribute& attribute : attributes) {
        if (ReadByTable(*interface, attribute, kLinkTable)) continue;
        if (attribute.type == IFLA_LINKINFO) {
            ReadLinkInfo(*interface, Attributes(attribute.bytes));
        } else if (attribute.type == IFLA_STATS64) {
            ReadCounters(*interface, attribute.bytes);
        } else if (attribute.type == IFLA_PROP_LIST) {
            ReadNames(*interface, Attributes(attribute.bytes));
        } else if (attribute.type == IFLA_VFINFO_LIST) {
            interface->functions =
                ReadVirtualFunctions(attribute.bytes, attributes.Find(IFLA_ADDRESS).bytes.size());
        }
    }
    SetOtherKind(*interface);
    return interface;
}
