#include "network/ethtool_message.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>

#include <cstring>
#include <span>
#include <utility>

#include "network/attribute_table.h"

namespace {

using Form = AttributeForm;

constexpr AttributeRow kInfoRows[] = {
    {ETHTOOL_A_LINKINFO_PORT, KEMD_NET_PORT},
    {ETHTOOL_A_LINKINFO_PHYADDR, KEMD_NET_PHY_ADDRESS},
    {ETHTOOL_A_LINKINFO_TRANSCEIVER, KEMD_NET_TRANSCEIVER},
};
constexpr AttributeTable kInfoTable(kInfoRows);
constexpr AttributeRow kModeRows[] = {
    {ETHTOOL_A_LINKMODES_AUTONEG, KEMD_NET_AUTO_NEGOTIATION},
    {ETHTOOL_A_LINKMODES_SPEED, KEMD_NET_SPEED, Form::kKnown},
    {ETHTOOL_A_LINKMODES_DUPLEX, KEMD_NET_DUPLEX, Form::kKnown},
    {ETHTOOL_A_LINKMODES_LANES, KEMD_NET_LANES, Form::kPositive},
};
constexpr AttributeTable kModeTable(kModeRows);
constexpr AttributeRow kStateRows[] = {
    {ETHTOOL_A_LINKSTATE_LINK, KEMD_NET_LINK_DETECTED},
    {ETHTOOL_A_LINKSTATE_SQI, KEMD_NET_SIGNAL_QUALITY},
    {ETHTOOL_A_LINKSTATE_SQI_MAX, KEMD_NET_SIGNAL_QUALITY_MAX},
    {ETHTOOL_A_LINKSTATE_EXT_STATE, KEMD_NET_LINK_DOWN_REASON},
    {ETHTOOL_A_LINKSTATE_EXT_SUBSTATE, KEMD_NET_LINK_DOWN_DETAIL},
};
constexpr AttributeTable kStateTable(kStateRows);
constexpr AttributeRow kPauseRows[] = {
    {ETHTOOL_A_PAUSE_AUTONEG, KEMD_NET_PAUSE_AUTO},
    {ETHTOOL_A_PAUSE_RX, KEMD_NET_PAUSE_RX},
    {ETHTOOL_A_PAUSE_TX, KEMD_NET_PAUSE_TX},
};
constexpr AttributeTable kPauseTable(kPauseRows);
constexpr AttributeRow kRingRows[] = {
    {ETHTOOL_A_RINGS_RX_MAX, KEMD_NET_RING_RX_MAX},
    {ETHTOOL_A_RINGS_RX_MINI_MAX, KEMD_NET_RING_RX_MINI_MAX},
    {ETHTOOL_A_RINGS_RX_JUMBO_MAX, KEMD_NET_RING_RX_JUMBO_MAX},
    {ETHTOOL_A_RINGS_TX_MAX, KEMD_NET_RING_TX_MAX},
    {ETHTOOL_A_RINGS_RX, KEMD_NET_RING_RX},
    {ETHTOOL_A_RINGS_RX_MINI, KEMD_NET_RING_RX_MINI},
    {ETHTOOL_A_RINGS_RX_JUMBO, KEMD_NET_RING_RX_JUMBO},
    {ETHTOOL_A_RINGS_TX, KEMD_NET_RING_TX},
};
constexpr AttributeTable kRingTable(kRingRows);
constexpr AttributeRow kChannelRows[] = {
    {ETHTOOL_A_CHANNELS_RX_MAX, KEMD_NET_CHANNELS_RX_MAX},
    {ETHTOOL_A_CHANNELS_TX_MAX, KEMD_NET_CHANNELS_TX_MAX},
    {ETHTOOL_A_CHANNELS_OTHER_MAX, KEMD_NET_CHANNELS_OTHER_MAX},
    {ETHTOOL_A_CHANNELS_COMBINED_MAX, KEMD_NET_CHANNELS_COMBINED_MAX},
    {ETHTOOL_A_CHANNELS_RX_COUNT, KEMD_NET_CHANNELS_RX},
    {ETHTOOL_A_CHANNELS_TX_COUNT, KEMD_NET_CHANNELS_TX},
    {ETHTOOL_A_CHANNELS_OTHER_COUNT, KEMD_NET_CHANNELS_OTHER},
    {ETHTOOL_A_CHANNELS_COMBINED_COUNT, KEMD_NET_CHANNELS_COMBINED},
};
constexpr AttributeTable kChannelTable(kChannelRows);

std::vector<uint32_t> BitWords(std::string_view bytes) {
    // Most interfaces have none of the many.
    bytes = bytes.substr(0, bytes.find_last_not_of('\0') + 1);
    std::vector<uint32_t> words((bytes.size() + sizeof(uint32_t) - 1) / sizeof(uint32_t));
    if (!words.empty()) std::memcpy(words.data(), bytes.data(), bytes.size());
    return words;
}

// One half of a compact set: the bits that are set, or those that may be.
struct BitsRow {
    uint32_t list;
    uint16_t set;
    uint16_t half;
};
constexpr BitsRow kModeBits[] = {
    {KEMD_NETWORK_SUPPORTED_MODES, ETHTOOL_A_LINKMODES_OURS, ETHTOOL_A_BITSET_MASK},
    {KEMD_NETWORK_ADVERTISED_MODES, ETHTOOL_A_LINKMODES_OURS, ETHTOOL_A_BITSET_VALUE},
    {KEMD_NETWORK_PEER_MODES, ETHTOOL_A_LINKMODES_PEER, ETHTOOL_A_BITSET_VALUE},
};
constexpr BitsRow kFeatureBits[] = {
    {KEMD_NETWORK_FEATURES, ETHTOOL_A_FEATURES_ACTIVE, ETHTOOL_A_BITSET_VALUE},
    {KEMD_NETWORK_WANTED_FEATURES, ETHTOOL_A_FEATURES_WANTED, ETHTOOL_A_BITSET_VALUE},
};
constexpr BitsRow kWakeBits[] = {
    {KEMD_NETWORK_WAKE_MODES, ETHTOOL_A_WOL_MODES, ETHTOOL_A_BITSET_VALUE},
    {KEMD_NETWORK_SUPPORTED_WAKE_MODES, ETHTOOL_A_WOL_MODES, ETHTOOL_A_BITSET_MASK},
};

std::vector<uint32_t> SetWords(const Attributes& attributes, uint16_t set, uint16_t half) {
    return BitWords(Attributes(attributes.Find(set).bytes).Find(half).bytes);
}

void ReadBits(const Attributes& attributes, uint32_t names, std::span<const BitsRow> rows,
              KemdNetworkInterface& interface) {
    for (const auto& [list, set, half] : rows) {
        if (attributes.Find(set).bytes.empty()) continue;
        interface.SetBits({list, names, SetWords(attributes, set, half)});
    }
}

void ReadFeatures(const Attributes& attributes, KemdNetworkInterface& interface) {
    ReadBits(attributes, ETH_SS_FEATURES, kFeatureBits, interface);
    if (attributes.Find(ETHTOOL_A_FEATURES_HW).bytes.empty()) return;
    const auto words = [&](uint16_t set) {
        return SetWords(attributes, set, ETHTOOL_A_BITSET_VALUE);
    };
    std::vector<uint32_t> changeable = words(ETHTOOL_A_FEATURES_HW);
    const std::vector<uint32_t> fixed = words(ETHTOOL_A_FEATURES_NOCHANGE);
    for (size_t i = 0; i < changeable.size() && i < fixed.size(); ++i) changeable[i] &= ~fixed[i];
    interface.SetBits({KEMD_NETWORK_CHANGEABLE_FEATURES, ETH_SS_FEATURES, std::move(changeable)});
}

void ReadLinkModes(const Attributes& attributes, KemdNetworkInterface& interface) {
    // What an earlier answer said need not be said again.
    for (const AttributeRow& row : kModeRows) interface.Forget(row.field);
    for (const BitsRow& row : kModeBits) interface.ForgetBits(row.list);
    ReadByTable(interface, attributes, kModeTable);
    ReadBits(attributes, ETH_SS_LINK_MODES, kModeBits, interface);
}

// A histogram of frame lengths becomes "rx-65-127".
void ReadHistogram(const Attribute& bucket, const char* direction,
                   std::vector<NamedCounter>& statistics) {
    const Attributes parts(bucket.bytes);
    const auto low = parts.Find(ETHTOOL_A_STATS_GRP_HIST_BKT_LOW).Number();
    const auto high = parts.Find(ETHTOOL_A_STATS_GRP_HIST_BKT_HI).Number();
    const auto value = parts.Find(ETHTOOL_A_STATS_GRP_HIST_VAL).Number();
    if (!low || !high || !value) return;
    statistics.push_back({ETH_SS_STATS_RMON, 0, *value,
                          std::string(direction) + "etherStatsPkts" + std::to_string(*low) + "to" +
                              std::to_string(*high) + "Octets"});
}

void ReadCounters(const Attribute& list, uint32_t names, std::vector<NamedCounter>& statistics) {
    for (const Attribute& counter : Attributes(list.bytes)) {
        const auto value = counter.Number();
        if (value) statistics.push_back({names, counter.type, *value, {}});
    }
}

void ReadGroup(const Attributes& group, std::vector<NamedCounter>& statistics) {
    const auto names = group.Find(ETHTOOL_A_STATS_GRP_SS_ID).Number();
    if (!names) return;
    for (const Attribute& attribute : group) {
        if (attribute.type == ETHTOOL_A_STATS_GRP_STAT) {
            ReadCounters(attribute, static_cast<uint32_t>(*names), statistics);
        } else if (attribute.type == ETHTOOL_A_STATS_GRP_HIST_RX) {
            ReadHistogram(attribute, "rx-", statistics);
        } else if (attribute.type == ETHTOOL_A_STATS_GRP_HIST_TX) {
            ReadHistogram(attribute, "tx-", statistics);
        }
    }
}

void ReadStatistics(const Attributes& attributes, KemdNetworkInterface& interface) {
    interface.statistics.clear();
    for (const Attribute& attribute : attributes) {
        if (attribute.type == ETHTOOL_A_STATS_GRP) {
            ReadGroup(Attributes(attribute.bytes), interface.statistics);
        }
    }
}

}  // namespace

const EthtoolQuery kEthtoolQueries[9] = {
    {ETHTOOL_MSG_LINKINFO_GET, "port and transceiver", KEMD_NETWORK_HARDWARE},
    {ETHTOOL_MSG_LINKMODES_GET, "speed and link modes", KEMD_NETWORK_LINK_SPEED},
    {ETHTOOL_MSG_LINKSTATE_GET, "link state", KEMD_NETWORK_HARDWARE},
    {ETHTOOL_MSG_PAUSE_GET, "pause", KEMD_NETWORK_SETTINGS},
    {ETHTOOL_MSG_RINGS_GET, "rings", KEMD_NETWORK_SETTINGS},
    {ETHTOOL_MSG_CHANNELS_GET, "channels", KEMD_NETWORK_SETTINGS},
    {ETHTOOL_MSG_FEATURES_GET, "features", KEMD_NETWORK_SETTINGS},
    {ETHTOOL_MSG_WOL_GET, "wake-on-LAN", kWakePart},
    {ETHTOOL_MSG_STATS_GET, "statistics", KEMD_NETWORK_STATISTICS},
};

uint32_t EthtoolIndex(std::string_view payload) {
    // The header is the first attribute of each answer, or the second after a pad.
    const Attributes attributes(AfterHeader(payload, sizeof(genlmsghdr)));
    for (const Attribute& attribute : attributes) {
        const auto index = Attributes(attribute.bytes).Find(ETHTOOL_A_HEADER_DEV_INDEX).Number();
        if (index) return static_cast<uint32_t>(*index);
    }
    return 0;
}

void ReadEthtool(uint8_t command, std::string_view payload, KemdNetworkInterface& interface) {
    const Attributes attributes(AfterHeader(payload, sizeof(genlmsghdr)));
    switch (command) {
        case ETHTOOL_MSG_LINKINFO_GET:
            return ReadByTable(interface, attributes, kInfoTable);
        case ETHTOOL_MSG_LINKMODES_GET:
            return ReadLinkModes(attributes, interface);
        case ETHTOOL_MSG_LINKSTATE_GET:
            for (const AttributeRow& row : kStateRows) interface.Forget(row.field);
            return ReadByTable(interface, attributes, kStateTable);
        case ETHTOOL_MSG_PAUSE_GET:
            return ReadByTable(interface, attributes, kPauseTable);
        case ETHTOOL_MSG_RINGS_GET:
            return ReadByTable(interface, attributes, kRingTable);
        case ETHTOOL_MSG_CHANNELS_GET:
            return ReadByTable(interface, attributes, kChannelTable);
        case ETHTOOL_MSG_FEATURES_GET:
            return ReadFeatures(attributes, interface);
        case ETHTOOL_MSG_WOL_GET:
            return ReadBits(attributes, ETH_SS_WOL_MODES, kWakeBits, interface);
        case ETHTOOL_MSG_STATS_GET:
            return ReadStatistics(attributes, interface);
        default:
            return;
    }
}

std::string StatisticGroup(uint32_t names) {
    switch (names) {
        case ETH_SS_STATS_ETH_PHY:
            return "eth-phy/";
        case ETH_SS_STATS_ETH_MAC:
            return "eth-mac/";
        case ETH_SS_STATS_ETH_CTRL:
            return "eth-ctrl/";
        case ETH_SS_STATS_RMON:
            return "rmon/";
        default:
            return std::to_string(names) + "/";
    }
}

void ReadNameSets(std::string_view payload, NameSets& names) {
    const Attributes attributes(AfterHeader(payload, sizeof(genlmsghdr)));
    for (const Attribute& set : Attributes(attributes.Find(ETHTOOL_A_STRSET_STRINGSETS).bytes)) {
        const Attributes parts(set.bytes);
        const auto id = parts.Find(ETHTOOL_A_STRINGSET_ID).Number();
        if (!id) continue;
        std::vector<std::string>& texts = names[static_cast<uint32_t>(*id)];
        texts.clear();
        for (const Attribute& text : Attributes(parts.Find(ETHTOOL_A_STRINGSET_STRINGS).bytes)) {
            texts.emplace_back(Attributes(text.bytes).Find(ETHTOOL_A_STRING_VALUE).Text());
        }
    }
}
