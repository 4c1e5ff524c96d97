// The answers of ethtool's netlink family, without netlink's own header. Throws std::bad_alloc
// alone.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "network/interface.h"

// A request that a dump answers for all interfaces.
struct EthtoolQuery {
    uint8_t command;   // ETHTOOL_MSG_
    const char* what;  // for errors
    uint32_t part;     // KEMD_NETWORK_HARDWARE ...
};
extern const EthtoolQuery kEthtoolQueries[9];

// Which interface an answer is about; 0 when it does not say.
[[nodiscard]] uint32_t EthtoolIndex(std::string_view payload);
void ReadEthtool(uint8_t command, std::string_view payload, KemdNetworkInterface& interface);
// "rmon/", for the statistics whose names are this set.
[[nodiscard]] std::string StatisticGroup(uint32_t names);
// ETHTOOL_MSG_STRSET_GET: the names of sets.
void ReadNameSets(std::string_view payload, NameSets& names);
