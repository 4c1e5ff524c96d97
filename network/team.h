// Team interfaces: their mode and the state of their members, which rtnetlink does not say but the
// kernel's generic netlink family "team", to root. Throws std::bad_alloc alone.
#pragma once

#include <string_view>

#include "network/netlink_socket.h"
#include "network/snapshot.h"

// Of all teams in the snapshot; `socket` is one of generic netlink.
void ReadTeams(NetlinkSocket& socket, const KemdNetworkSnapshot& snapshot);
// An answer about `team`, without netlink's own header: options, or ports.
void ReadTeam(std::string_view payload, const KemdNetworkSnapshot& snapshot,
              KemdNetworkInterface& team);
