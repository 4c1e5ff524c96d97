#include "network/fields.h"

#include <iterator>

#include "network/words.h"

namespace {

constexpr uint32_t kText = KEMD_NETWORK_KIND_TEXT;
constexpr uint32_t kNumber = KEMD_NETWORK_KIND_NUMBER;
constexpr uint32_t kWord = KEMD_NETWORK_KIND_WORD;
constexpr uint32_t kFlags = KEMD_NETWORK_KIND_FLAGS;
constexpr uint32_t kYes = KEMD_NETWORK_KIND_YES;
constexpr uint32_t kIndex = KEMD_NETWORK_KIND_INDEX;
constexpr uint32_t kHardware = KEMD_NETWORK_HARDWARE;
constexpr uint32_t kDriver = KEMD_NETWORK_DRIVER;
constexpr uint32_t kSpeed = KEMD_NETWORK_LINK_SPEED;
constexpr uint32_t kSettings = KEMD_NETWORK_SETTINGS;
constexpr uint32_t kModule = KEMD_NETWORK_MODULE;

// clang-format off
constexpr FieldRow kFields[] = {
    {KEMD_NET_INDEX, "index", kNumber, 0, ""},
    {KEMD_NET_NAME, "name", kText, 0, ""},
    {KEMD_NET_ALIAS, "alias", kText, 0, ""},
    {KEMD_NET_KIND, "kind", kText, 0, ""},
    {KEMD_NET_TYPE, "type", kWord, 0, ""},
    {KEMD_NET_FLAGS, "flags", kFlags, 0, ""},
    {KEMD_NET_OPER_STATE, "oper_state", kWord, 0, ""},
    {KEMD_NET_LINK_MODE, "link_mode", kWord, 0, ""},
    {KEMD_NET_CARRIER, "carrier", kYes, 0, ""},
    {KEMD_NET_CARRIER_CHANGES, "carrier_changes", kNumber, 0, ""},
    {KEMD_NET_CARRIER_UPS, "carrier_ups", kNumber, 0, ""},
    {KEMD_NET_CARRIER_DOWNS, "carrier_downs", kNumber, 0, ""},
    {KEMD_NET_PROTO_DOWN, "proto_down", kYes, 0, ""},
    {KEMD_NET_PROMISCUITY, "promiscuity", kNumber, 0, ""},
    {KEMD_NET_ALLMULTI, "allmulti", kNumber, 0, ""},
    {KEMD_NET_MTU, "mtu", kNumber, 0, "bytes"},
    {KEMD_NET_MIN_MTU, "min_mtu", kNumber, 0, "bytes"},
    {KEMD_NET_MAX_MTU, "max_mtu", kNumber, 0, "bytes"},
    {KEMD_NET_MAC, "mac", kText, 0, ""},
    {KEMD_NET_BROADCAST, "broadcast", kText, 0, ""},
    {KEMD_NET_PERMANENT_MAC, "permanent_mac", kText, 0, ""},
    {KEMD_NET_QDISC, "qdisc", kText, 0, ""},
    {KEMD_NET_QUEUE_LENGTH, "queue_length", kNumber, 0, "frames"},
    {KEMD_NET_GROUP, "group", kNumber, 0, ""},
    {KEMD_NET_TX_QUEUES, "tx_queues", kNumber, 0, ""},
    {KEMD_NET_RX_QUEUES, "rx_queues", kNumber, 0, ""},
    {KEMD_NET_GSO_MAX_SIZE, "gso_max_size", kNumber, 0, "bytes"},
    {KEMD_NET_GSO_MAX_SEGMENTS, "gso_max_segments", kNumber, 0, ""},
    {KEMD_NET_PARENT, "parent", kIndex, 0, ""},
    {KEMD_NET_PARENT_NAME_SPACE, "parent_name_space", kNumber, 0, ""},
    {KEMD_NET_MASTER, "master", kIndex, 0, ""},
    {KEMD_NET_MEMBER_KIND, "member_kind", kText, 0, ""},
    {KEMD_NET_PORT_NAME, "port_name", kText, 0, ""},
    {KEMD_NET_PORT_ID, "port_id", kText, 0, ""},
    {KEMD_NET_SWITCH_ID, "switch_id", kText, 0, ""},
    {KEMD_NET_VLAN_ID, "vlan_id", kNumber, 0, ""},
    {KEMD_NET_VLAN_PROTOCOL, "vlan_protocol", kWord, 0, ""},
    {KEMD_NET_MACVLAN_MODE, "macvlan_mode", kWord, 0, ""},
    {KEMD_NET_IPVLAN_MODE, "ipvlan_mode", kWord, 0, ""},
    {KEMD_NET_VXLAN_ID, "vxlan_id", kNumber, 0, ""},
    {KEMD_NET_VXLAN_PORT, "vxlan_port", kNumber, 0, ""},
    {KEMD_NET_VXLAN_REMOTE, "vxlan_remote", kText, 0, ""},
    {KEMD_NET_VXLAN_LOCAL, "vxlan_local", kText, 0, ""},
    {KEMD_NET_TUN_OWNER, "tun_owner", kNumber, 0, ""},
    {KEMD_NET_TUN_GROUP, "tun_group", kNumber, 0, ""},
    {KEMD_NET_TUN_PERSISTENT, "tun_persistent", kYes, 0, ""},
    {KEMD_NET_VRF_TABLE, "vrf_table", kNumber, 0, ""},
    {KEMD_NET_BRIDGE_STP, "bridge_stp", kWord, 0, ""},
    {KEMD_NET_BRIDGE_VLANS, "bridge_vlans", kYes, 0, ""},
    {KEMD_NET_BRIDGE_PRIORITY, "bridge_priority", kNumber, 0, ""},
    {KEMD_NET_BRIDGE_PORT_STATE, "bridge_port_state", kWord, 0, ""},
    {KEMD_NET_BRIDGE_PORT_COST, "bridge_port_cost", kNumber, 0, ""},
    {KEMD_NET_BOND_MODE, "bond_mode", kWord, 0, ""},
    {KEMD_NET_BOND_MIIMON, "bond_miimon", kNumber, 0, "ms"},
    {KEMD_NET_BOND_ACTIVE, "bond_active", kIndex, 0, ""},
    {KEMD_NET_BOND_PRIMARY, "bond_primary", kIndex, 0, ""},
    {KEMD_NET_BOND_UP_DELAY, "bond_up_delay", kNumber, 0, "ms"},
    {KEMD_NET_BOND_DOWN_DELAY, "bond_down_delay", kNumber, 0, "ms"},
    {KEMD_NET_BOND_HASH, "bond_hash", kWord, 0, ""},
    {KEMD_NET_BOND_LACP_RATE, "bond_lacp_rate", kWord, 0, ""},
    {KEMD_NET_BOND_MEMBER_STATE, "bond_member_state", kWord, 0, ""},
    {KEMD_NET_BOND_MEMBER_MII, "bond_member_mii", kWord, 0, ""},
    {KEMD_NET_BOND_MEMBER_FAILURES, "bond_member_failures", kNumber, 0, ""},
    {KEMD_NET_BOND_MEMBER_MAC, "bond_member_mac", kText, 0, ""},
    {KEMD_NET_BOND_MEMBER_QUEUE, "bond_member_queue", kNumber, 0, ""},
    {KEMD_NET_BOND_MEMBER_AGGREGATOR, "bond_member_aggregator", kNumber, 0, ""},
    {KEMD_NET_RX_PACKETS, "rx_packets", kNumber, 0, ""},
    {KEMD_NET_TX_PACKETS, "tx_packets", kNumber, 0, ""},
    {KEMD_NET_RX_BYTES, "rx_bytes", kNumber, 0, "bytes"},
    {KEMD_NET_TX_BYTES, "tx_bytes", kNumber, 0, "bytes"},
    {KEMD_NET_RX_ERRORS, "rx_errors", kNumber, 0, ""},
    {KEMD_NET_TX_ERRORS, "tx_errors", kNumber, 0, ""},
    {KEMD_NET_RX_DROPPED, "rx_dropped", kNumber, 0, ""},
    {KEMD_NET_TX_DROPPED, "tx_dropped", kNumber, 0, ""},
    {KEMD_NET_MULTICAST, "multicast", kNumber, 0, ""},
    {KEMD_NET_COLLISIONS, "collisions", kNumber, 0, ""},
    {KEMD_NET_RX_LENGTH_ERRORS, "rx_length_errors", kNumber, 0, ""},
    {KEMD_NET_RX_OVER_ERRORS, "rx_over_errors", kNumber, 0, ""},
    {KEMD_NET_RX_CRC_ERRORS, "rx_crc_errors", kNumber, 0, ""},
    {KEMD_NET_RX_FRAME_ERRORS, "rx_frame_errors", kNumber, 0, ""},
    {KEMD_NET_RX_FIFO_ERRORS, "rx_fifo_errors", kNumber, 0, ""},
    {KEMD_NET_RX_MISSED_ERRORS, "rx_missed_errors", kNumber, 0, ""},
    {KEMD_NET_TX_ABORTED_ERRORS, "tx_aborted_errors", kNumber, 0, ""},
    {KEMD_NET_TX_CARRIER_ERRORS, "tx_carrier_errors", kNumber, 0, ""},
    {KEMD_NET_TX_FIFO_ERRORS, "tx_fifo_errors", kNumber, 0, ""},
    {KEMD_NET_TX_HEARTBEAT_ERRORS, "tx_heartbeat_errors", kNumber, 0, ""},
    {KEMD_NET_TX_WINDOW_ERRORS, "tx_window_errors", kNumber, 0, ""},
    {KEMD_NET_RX_COMPRESSED, "rx_compressed", kNumber, 0, ""},
    {KEMD_NET_TX_COMPRESSED, "tx_compressed", kNumber, 0, ""},
    {KEMD_NET_RX_NO_HANDLER, "rx_no_handler", kNumber, 0, ""},
    {KEMD_NET_RX_OTHER_HOST_DROPPED, "rx_other_host_dropped", kNumber, 0, ""},
    {KEMD_NET_BUS, "bus", kText, kDriver, ""},
    {KEMD_NET_BUS_ADDRESS, "bus_address", kText, kDriver, ""},
    {KEMD_NET_NUMA_NODE, "numa_node", kNumber, kDriver, ""},
    {KEMD_NET_DRIVER, "driver", kText, kDriver, ""},
    {KEMD_NET_DRIVER_VERSION, "driver_version", kText, kDriver, ""},
    {KEMD_NET_FIRMWARE, "firmware", kText, kDriver, ""},
    {KEMD_NET_SPEED, "speed", kNumber, kSpeed, "Mbit/s"},
    {KEMD_NET_DUPLEX, "duplex", kWord, kSpeed, ""},
    {KEMD_NET_AUTO_NEGOTIATION, "auto_negotiation", kYes, kSpeed, ""},
    {KEMD_NET_LANES, "lanes", kNumber, kSpeed, ""},
    {KEMD_NET_PORT, "port", kWord, kHardware, ""},
    {KEMD_NET_PHY_ADDRESS, "phy_address", kNumber, kHardware, ""},
    {KEMD_NET_TRANSCEIVER, "transceiver", kWord, kHardware, ""},
    {KEMD_NET_LINK_DETECTED, "link_detected", kYes, kHardware, ""},
    {KEMD_NET_SIGNAL_QUALITY, "signal_quality", kNumber, kHardware, ""},
    {KEMD_NET_SIGNAL_QUALITY_MAX, "signal_quality_max", kNumber, kHardware, ""},
    {KEMD_NET_LINK_DOWN_REASON, "link_down_reason", kWord, kHardware, ""},
    {KEMD_NET_LINK_DOWN_DETAIL, "link_down_detail", kNumber, kHardware, ""},
    {KEMD_NET_PAUSE_AUTO, "pause_auto", kYes, kSettings, ""},
    {KEMD_NET_PAUSE_RX, "pause_rx", kYes, kSettings, ""},
    {KEMD_NET_PAUSE_TX, "pause_tx", kYes, kSettings, ""},
    {KEMD_NET_RING_RX, "ring_rx", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_RX_MAX, "ring_rx_max", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_RX_MINI, "ring_rx_mini", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_RX_MINI_MAX, "ring_rx_mini_max", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_RX_JUMBO, "ring_rx_jumbo", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_RX_JUMBO_MAX, "ring_rx_jumbo_max", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_TX, "ring_tx", kNumber, kSettings, "entries"},
    {KEMD_NET_RING_TX_MAX, "ring_tx_max", kNumber, kSettings, "entries"},
    {KEMD_NET_CHANNELS_RX, "channels_rx", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_RX_MAX, "channels_rx_max", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_TX, "channels_tx", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_TX_MAX, "channels_tx_max", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_OTHER, "channels_other", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_OTHER_MAX, "channels_other_max", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_COMBINED, "channels_combined", kNumber, kSettings, ""},
    {KEMD_NET_CHANNELS_COMBINED_MAX, "channels_combined_max", kNumber, kSettings, ""},
    {KEMD_NET_MODULE_TYPE, "module_type", kWord, kModule, ""},
    {KEMD_NET_MODULE_CONNECTOR, "module_connector", kWord, kModule, ""},
    {KEMD_NET_MODULE_VENDOR, "module_vendor", kText, kModule, ""},
    {KEMD_NET_MODULE_OUI, "module_oui", kText, kModule, ""},
    {KEMD_NET_MODULE_PART, "module_part", kText, kModule, ""},
    {KEMD_NET_MODULE_REVISION, "module_revision", kText, kModule, ""},
    {KEMD_NET_MODULE_SERIAL, "module_serial", kText, kModule, ""},
    {KEMD_NET_MODULE_DATE, "module_date", kText, kModule, ""},
    {KEMD_NET_TEAM_MODE, "team_mode", kText, kSettings, ""},
    {KEMD_NET_TEAM_ACTIVE, "team_active", kIndex, kSettings, ""},
    {KEMD_NET_TEAM_MEMBER_ENABLED, "team_member_enabled", kYes, kSettings, ""},
    {KEMD_NET_TEAM_MEMBER_LINK, "team_member_link", kYes, kSettings, ""},
};
// clang-format on

constexpr bool IsInOrder() {
    uint32_t expected = 0;
    for (const FieldRow& row : kFields) {
        if (row.field != expected++) return false;
    }
    return expected == KEMD_NET_FIELDS;
}
static_assert(IsInOrder(), "each field has its row, at its own position");

}  // namespace

const FieldRow* FindField(uint32_t field) {
    return field < std::size(kFields) ? &kFields[field] : nullptr;
}

std::string ValueText(const FieldRow& row, uint64_t value) {
    const Word* word = WordsOf(row.field);
    std::string text;
    for (; word != nullptr && word->text != nullptr; ++word) {
        if (row.kind != KEMD_NETWORK_KIND_FLAGS) {
            if (word->value == value) return word->text;
        } else if ((value & word->value) != 0) {
            if (!text.empty()) text += ' ';
            text += word->text;
        }
    }
    return row.kind == KEMD_NETWORK_KIND_FLAGS ? text : std::to_string(value);
}
