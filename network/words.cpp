#include "network/words.h"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_bonding.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
// After linux/if.h: that one leaves out what both define.
#include <linux/ethtool.h>

#include "kemd/network_fields.h"

namespace {

constexpr Word kTypes[] = {{ARPHRD_ETHER, "ether"},
                           {ARPHRD_LOOPBACK, "loopback"},
                           {ARPHRD_INFINIBAND, "infiniband"},
                           {ARPHRD_IEEE1394, "ieee1394"},
                           {ARPHRD_SLIP, "slip"},
                           {ARPHRD_CAN, "can"},
                           {ARPHRD_PPP, "ppp"},
                           {ARPHRD_RAWIP, "rawip"},
                           {ARPHRD_TUNNEL, "ipip"},
                           {ARPHRD_TUNNEL6, "tunnel6"},
                           {ARPHRD_SIT, "sit"},
                           {ARPHRD_IPGRE, "gre"},
                           {ARPHRD_IP6GRE, "gre6"},
                           {ARPHRD_FDDI, "fddi"},
                           {ARPHRD_IEEE80211, "ieee802.11"},
                           {ARPHRD_IEEE80211_PRISM, "ieee802.11/prism"},
                           {ARPHRD_IEEE80211_RADIOTAP, "ieee802.11/radiotap"},
                           {ARPHRD_IEEE802154, "ieee802.15.4"},
                           {ARPHRD_6LOWPAN, "6lowpan"},
                           {ARPHRD_NETLINK, "netlink"},
                           {ARPHRD_VSOCKMON, "vsockmon"},
                           {ARPHRD_NONE, "none"},
                           {ARPHRD_VOID, "void"},
                           {0, nullptr}};
constexpr Word kInterfaceFlags[] = {{IFF_UP, "up"},
                                    {IFF_BROADCAST, "broadcast"},
                                    {IFF_DEBUG, "debug"},
                                    {IFF_LOOPBACK, "loopback"},
                                    {IFF_POINTOPOINT, "pointopoint"},
                                    {IFF_NOTRAILERS, "notrailers"},
                                    {IFF_RUNNING, "running"},
                                    {IFF_NOARP, "noarp"},
                                    {IFF_PROMISC, "promisc"},
                                    {IFF_ALLMULTI, "allmulti"},
                                    {IFF_MASTER, "master"},
                                    {IFF_SLAVE, "slave"},
                                    {IFF_MULTICAST, "multicast"},
                                    {IFF_PORTSEL, "portsel"},
                                    {IFF_AUTOMEDIA, "automedia"},
                                    {IFF_DYNAMIC, "dynamic"},
                                    {IFF_LOWER_UP, "lower_up"},
                                    {IFF_DORMANT, "dormant"},
                                    {IFF_ECHO, "echo"},
                                    {0, nullptr}};
constexpr Word kOperStates[] = {
    {IF_OPER_UNKNOWN, "unknown"}, {IF_OPER_NOTPRESENT, "notpresent"},
    {IF_OPER_DOWN, "down"},       {IF_OPER_LOWERLAYERDOWN, "lowerlayerdown"},
    {IF_OPER_TESTING, "testing"}, {IF_OPER_DORMANT, "dormant"},
    {IF_OPER_UP, "up"},           {0, nullptr}};
constexpr Word kLinkModes[] = {{IF_LINK_MODE_DEFAULT, "default"},
                               {IF_LINK_MODE_DORMANT, "dormant"},
                               {IF_LINK_MODE_TESTING, "testing"},
                               {0, nullptr}};
constexpr Word kVlanProtocols[] = {
    {ETH_P_8021Q, "802.1Q"}, {ETH_P_8021AD, "802.1ad"}, {0, nullptr}};
constexpr Word kMacvlanModes[] = {
    {MACVLAN_MODE_PRIVATE, "private"}, {MACVLAN_MODE_VEPA, "vepa"},
    {MACVLAN_MODE_BRIDGE, "bridge"},   {MACVLAN_MODE_PASSTHRU, "passthru"},
    {MACVLAN_MODE_SOURCE, "source"},   {0, nullptr}};
constexpr Word kIpvlanModes[] = {
    {IPVLAN_MODE_L2, "l2"}, {IPVLAN_MODE_L3, "l3"}, {IPVLAN_MODE_L3S, "l3s"}, {0, nullptr}};
constexpr Word kStpStates[] = {{0, "off"}, {1, "kernel"}, {2, "user"}, {0, nullptr}};
constexpr Word kBridgePortStates[] = {
    {BR_STATE_DISABLED, "disabled"}, {BR_STATE_LISTENING, "listening"},
    {BR_STATE_LEARNING, "learning"}, {BR_STATE_FORWARDING, "forwarding"},
    {BR_STATE_BLOCKING, "blocking"}, {0, nullptr}};
constexpr Word kBondModes[] = {
    {BOND_MODE_ROUNDROBIN, "balance-rr"}, {BOND_MODE_ACTIVEBACKUP, "active-backup"},
    {BOND_MODE_XOR, "balance-xor"},       {BOND_MODE_BROADCAST, "broadcast"},
    {BOND_MODE_8023AD, "802.3ad"},        {BOND_MODE_TLB, "balance-tlb"},
    {BOND_MODE_ALB, "balance-alb"},       {0, nullptr}};
constexpr Word kBondHashes[] = {{BOND_XMIT_POLICY_LAYER2, "layer2"},
                                {BOND_XMIT_POLICY_LAYER34, "layer3+4"},
                                {BOND_XMIT_POLICY_LAYER23, "layer2+3"},
                                {BOND_XMIT_POLICY_ENCAP23, "encap2+3"},
                                {BOND_XMIT_POLICY_ENCAP34, "encap3+4"},
                                {BOND_XMIT_POLICY_VLAN_SRCMAC, "vlan+srcmac"},
                                {0, nullptr}};
constexpr Word kLacpRates[] = {{0, "slow"}, {1, "fast"}, {0, nullptr}};
constexpr Word kBondStates[] = {
    {BOND_STATE_ACTIVE, "active"}, {BOND_STATE_BACKUP, "backup"}, {0, nullptr}};
constexpr Word kBondLinks[] = {{BOND_LINK_UP, "up"},
                               {BOND_LINK_FAIL, "going down"},
                               {BOND_LINK_DOWN, "down"},
                               {BOND_LINK_BACK, "going back"},
                               {0, nullptr}};
constexpr Word kDuplexes[] = {{DUPLEX_HALF, "half"}, {DUPLEX_FULL, "full"}, {0, nullptr}};
constexpr Word kPorts[] = {
    {PORT_TP, "twisted pair"}, {PORT_AUI, "AUI"},     {PORT_MII, "MII"},
    {PORT_FIBRE, "fibre"},     {PORT_BNC, "BNC"},     {PORT_DA, "direct attach copper"},
    {PORT_NONE, "none"},       {PORT_OTHER, "other"}, {0, nullptr}};
constexpr Word kTransceivers[] = {
    {XCVR_INTERNAL, "internal"}, {XCVR_EXTERNAL, "external"}, {0, nullptr}};
constexpr Word kDownReasons[] = {
    {ETHTOOL_LINK_EXT_STATE_AUTONEG, "auto-negotiation"},
    {ETHTOOL_LINK_EXT_STATE_LINK_TRAINING_FAILURE, "link training failed"},
    {ETHTOOL_LINK_EXT_STATE_LINK_LOGICAL_MISMATCH, "logical mismatch"},
    {ETHTOOL_LINK_EXT_STATE_BAD_SIGNAL_INTEGRITY, "bad signal integrity"},
    {ETHTOOL_LINK_EXT_STATE_NO_CABLE, "no cable"},
    {ETHTOOL_LINK_EXT_STATE_CABLE_ISSUE, "cable issue"},
    {ETHTOOL_LINK_EXT_STATE_EEPROM_ISSUE, "EEPROM issue"},
    {ETHTOOL_LINK_EXT_STATE_CALIBRATION_FAILURE, "calibration failed"},
    {ETHTOOL_LINK_EXT_STATE_POWER_BUDGET_EXCEEDED, "power budget exceeded"},
    {ETHTOOL_LINK_EXT_STATE_OVERHEAT, "overheated"},
    {ETHTOOL_LINK_EXT_STATE_MODULE, "module"},
    {0, nullptr}};
constexpr Word kModuleTypes[] = {{0x01, "GBIC"},
                                 {0x02, "soldered"},
                                 {0x03, "SFP"},
                                 {0x06, "XFP"},
                                 {0x0C, "QSFP"},
                                 {0x0D, "QSFP+"},
                                 {0x11, "QSFP28"},
                                 {0x18, "QSFP-DD"},
                                 {0x19, "OSFP"},
                                 {0x1A, "SFP-DD"},
                                 {0x1B, "DSFP"},
                                 {0x1E, "QSFP+ with CMIS"},
                                 {0x1F, "SFP-DD with CMIS"},
                                 {0x20, "SFP+ with CMIS"},
                                 {0, nullptr}};
constexpr Word kConnectors[] = {{0x01, "SC"},
                                {0x07, "LC"},
                                {0x08, "MT-RJ"},
                                {0x0B, "optical pigtail"},
                                {0x0C, "MPO 1x12"},
                                {0x0D, "MPO 2x16"},
                                {0x21, "copper pigtail"},
                                {0x22, "RJ45"},
                                {0x23, "no separable connector"},
                                {0x24, "MXC 2x16"},
                                {0x25, "CS optical"},
                                {0x27, "MPO 2x12"},
                                {0x28, "MPO 1x16"},
                                {0, nullptr}};

constexpr struct {
    uint32_t field;
    const Word* words;
} kWords[] = {{KEMD_NET_TYPE, kTypes},
              {KEMD_NET_FLAGS, kInterfaceFlags},
              {KEMD_NET_OPER_STATE, kOperStates},
              {KEMD_NET_LINK_MODE, kLinkModes},
              {KEMD_NET_VLAN_PROTOCOL, kVlanProtocols},
              {KEMD_NET_MACVLAN_MODE, kMacvlanModes},
              {KEMD_NET_IPVLAN_MODE, kIpvlanModes},
              {KEMD_NET_BRIDGE_STP, kStpStates},
              {KEMD_NET_BRIDGE_PORT_STATE, kBridgePortStates},
              {KEMD_NET_BOND_MODE, kBondModes},
              {KEMD_NET_BOND_HASH, kBondHashes},
              {KEMD_NET_BOND_LACP_RATE, kLacpRates},
              {KEMD_NET_BOND_MEMBER_STATE, kBondStates},
              {KEMD_NET_BOND_MEMBER_MII, kBondLinks},
              {KEMD_NET_DUPLEX, kDuplexes},
              {KEMD_NET_PORT, kPorts},
              {KEMD_NET_TRANSCEIVER, kTransceivers},
              {KEMD_NET_LINK_DOWN_REASON, kDownReasons},
              {KEMD_NET_MODULE_TYPE, kModuleTypes},
              {KEMD_NET_MODULE_CONNECTOR, kConnectors}};

}  // namespace

const Word* WordsOf(uint32_t field) {
    for (const auto& [owner, words] : kWords) {
        if (owner == field) return words;
    }
    return nullptr;
}
