// One network name space: its sockets, and snapshots of it. One thread at a time. Throws
// std::bad_alloc alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "network/ethtool.h"
#include "network/netlink_socket.h"
#include "network/snapshot.h"

struct KemdNetwork {
    // An errno number, as everywhere here.
    [[nodiscard]] int Open(int nameSpace);
    [[nodiscard]] int Take(uint32_t parts, KemdNetworkSnapshot& snapshot);
    [[nodiscard]] int ReadRoutes(std::vector<KemdNetworkRoute>& routes);
    // The counters of all interfaces in Counters(), until the next call.
    [[nodiscard]] int ReadCounters();
    [[nodiscard]] const std::vector<KemdNetworkCounters>& Counters() const { return m_counters; }
    [[nodiscard]] Ethtool& Hardware() { return m_ethtool; }
    [[nodiscard]] const std::string& ErrorText() const { return m_errorText; }

  private:
    [[nodiscard]] int TakeOnce(uint32_t parts, KemdNetworkSnapshot& snapshot);
    [[nodiscard]] int ReadLinks(KemdNetworkSnapshot& snapshot);
    [[nodiscard]] int ReadAddresses(KemdNetworkSnapshot& snapshot);
    [[nodiscard]] int ReadNames();
    [[nodiscard]] bool AddNames();
    int Explain(int error);

    NetlinkSocket m_route;
    Ethtool m_ethtool;
    std::string m_errorText;
    // For the counters: interfaces with their names, as of this time.
    KemdNetworkSnapshot m_named;
    std::chrono::steady_clock::time_point m_namedAt;
    std::vector<KemdNetworkCounters> m_counters;
};
