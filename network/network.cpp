#include "network/network.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "network/messages.h"
#include "network/name_space.h"
#include "network/team.h"

namespace {

constexpr int kAttempts = 4;

}  // namespace

int KemdNetwork::Open(int nameSpace) {
    return RunInNameSpace(nameSpace, [this] {
        const int error = m_route.Open(NETLINK_ROUTE);
        return error != 0 ? error : m_ethtool.Open();
    });
}

int KemdNetwork::Explain(int error) {
    if (error != 0) m_errorText = m_route.ErrorText();
    return error;
}

int KemdNetwork::ReadLinks(KemdNetworkSnapshot& snapshot) {
    NetlinkRequest request("reading the interfaces", RTM_GETLINK, NLM_F_DUMP);
    request.AddHeader(ifinfomsg{});
    // The counters of IPv6 and of virtual functions take the kernel a tenth of the time.
    const bool hasCounters = (snapshot.facts->parts & KEMD_NETWORK_STATISTICS) != 0;
    request.AddNumber(IFLA_EXT_MASK,
                      RTEXT_FILTER_VF | (hasCounters ? 0U : RTEXT_FILTER_SKIP_STATS));
    auto& interfaces = snapshot.interfaces;
    const int error = m_route.Dump(
        request, [&] { interfaces.clear(); },
        [&](const NetlinkMessage& message) {
            if (message.header.nlmsg_type != RTM_NEWLINK) return;
            auto interface = ReadLink(message.payload, snapshot.facts);
            if (interface != nullptr) interfaces.push_back(std::move(interface));
        });
    const auto isBefore = [](const auto& a, const auto& b) { return a->Index() < b->Index(); };
    // As newer kernels send them.
    if (!std::is_sorted(interfaces.begin(), interfaces.end(), isBefore)) {
        std::sort(interfaces.begin(), interfaces.end(), isBefore);
    }
    // An interrupted dump may show one twice.
    interfaces.erase(
        std::unique(interfaces.begin(), interfaces.end(),
                    [](const auto& a, const auto& b) { return a->Index() == b->Index(); }),
        interfaces.end());
    snapshot.isConsistent = snapshot.isConsistent && m_route.IsConsistent();
    return error;
}

int KemdNetwork::ReadAddresses(KemdNetworkSnapshot& snapshot) {
    NetlinkRequest request("reading the addresses", RTM_GETADDR, NLM_F_DUMP);
    request.AddHeader(ifaddrmsg{});
    bool isComplete = true;
    const int error = m_route.Dump(
        request,
        [&] {
            isComplete = true;
            for (const auto& interface : snapshot.interfaces) interface->addresses.clear();
        },
        [&](const NetlinkMessage& message) {
            if (message.header.nlmsg_type != RTM_NEWADDR) return;
            const auto address = ReadAddress(message.payload);
            if (!address) return;
            KemdNetworkInterface* interface = snapshot.Find(address->interface);
            isComplete = isComplete && interface != nullptr;
            if (interface != nullptr) interface->addresses.push_back(address->address);
        });
    snapshot.isConsistent = snapshot.isConsistent && isComplete && m_route.IsConsistent();
    return error;
}

int KemdNetwork::ReadRoutes(std::vector<KemdNetworkRoute>& routes) {
    NetlinkRequest request("reading the routes", RTM_GETROUTE, NLM_F_DUMP);
    request.AddHeader(rtmsg{});
    const int error = m_route.Dump(
        request, [&] { routes.clear(); },
        [&](const NetlinkMessage& message) {
            if (message.header.nlmsg_type == RTM_NEWROUTE) ::ReadRoutes(message.payload, routes);
        });
    SortRoutes(routes);
    return Explain(error);
}

int KemdNetwork::TakeOnce(uint32_t parts, KemdNetworkSnapshot& snapshot) {
    snapshot = {};
    snapshot.facts = std::make_shared<NetworkFacts>();
    snapshot.facts->parts = parts;
    snapshot.facts->names = m_ethtool.Names(parts);
    int error = ReadLinks(snapshot);
    if (error == 0 && (parts & KEMD_NETWORK_ADDRESSES) != 0) error = ReadAddresses(snapshot);
    if (error != 0) return Explain(error);
    if ((parts & KEMD_NETWORK_ROUTES) == 0) return 0;
    error = ReadRoutes(snapshot.routes);
    snapshot.isConsistent =
        snapshot.isConsistent && m_route.IsConsistent() &&
        std::all_of(snapshot.routes.begin(), snapshot.routes.end(), [&](const auto& route) {
            return route.interface == 0 || snapshot.Find(route.interface) != nullptr;
        });
    return error;
}

int KemdNetwork::Take(uint32_t asked, KemdNetworkSnapshot& snapshot) {
    const uint32_t parts = WithTheirParts(asked);
    // Each dump is repeated by itself; all of them when they do not fit together.
    for (int attempt = 1;; ++attempt) {
        const int error = TakeOnce(parts, snapshot);
        if (error != 0) return error;
        if (snapshot.isConsistent || attempt == kAttempts) break;
    }
    constexpr uint32_t kByEthtool =
        kHardwareParts | KEMD_NETWORK_SETTINGS | KEMD_NETWORK_STATISTICS;
    if ((parts & kByEthtool) != 0) {
        m_ethtool.ReadAll(parts, snapshot, [&](uint32_t part, const char* what, int error) {
            snapshot.NoteError(part, what, error);
        });
    }
    m_ethtool.ReadAllByIoctl(parts, snapshot);
    if ((parts & KEMD_NETWORK_SETTINGS) != 0) ReadTeams(m_ethtool.Socket(), snapshot);
    if ((parts & KEMD_NETWORK_MODULE) == 0) return 0;
    for (const auto& interface : snapshot.interfaces) m_ethtool.ReadModule(*interface);
    return 0;
}
