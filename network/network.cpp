#include "network/network.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "network/attributes.h"
#include "network/messages.h"
#include "network/name_space.h"
#include "network/team.h"

namespace {

constexpr int kSnapshotAttempts = 4;
constexpr std::chrono::seconds kNamesFor(10);

// RTM_NEWSTATS; index 0 when it is no such message.
KemdNetworkCounters CountersOf(std::string_view payload) {
    KemdNetworkCounters counters{};
    counters.size = sizeof counters;
    const auto header = HeaderOf<if_stats_msg>(payload);
    if (!header) return counters;
    const Attributes attributes(AfterHeader(payload, sizeof *header));
    // The first eight are those of all kernels.
    constexpr size_t kCount = 8;
    using Numbers = std::array<uint64_t, kCount>;
    const auto numbers = HeaderOf<Numbers>(attributes.Find(IFLA_STATS_LINK_64).bytes);
    if (!numbers) return counters;
    static_assert(sizeof counters == offsetof(KemdNetworkCounters, rxPackets) + sizeof *numbers);
    std::memcpy(&counters.rxPackets, numbers->data(), sizeof *numbers);
    counters.index = header->ifindex;
    return counters;
}

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

int KemdNetwork::ReadNames() {
    m_namedAt = std::chrono::steady_clock::now();
    return TakeOnce(0, m_named);
}

// False when there is no name for one.
bool KemdNetwork::AddNames() {
    bool hasAll = true;
    for (KemdNetworkCounters& counters : m_counters) {
        const KemdNetworkInterface* const interface = m_named.Find(counters.index);
        hasAll = hasAll && interface != nullptr;
        counters.name = interface != nullptr ? interface->Text(KEMD_NET_NAME).data() : nullptr;
    }
    return hasAll;
}

int KemdNetwork::ReadCounters() {
    const bool isOld = std::chrono::steady_clock::now() - m_namedAt > kNamesFor;
    int error = isOld ? ReadNames() : 0;
    if (error != 0) return error;
    NetlinkRequest request("reading the counters", RTM_GETSTATS, NLM_F_DUMP);
    if_stats_msg wanted{};
    wanted.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
    request.AddHeader(wanted);
    error = m_route.Dump(
        request, [&] { m_counters.clear(); },
        [&](const NetlinkMessage& message) {
            if (message.header.nlmsg_type != RTM_NEWSTATS) return;
            const KemdNetworkCounters counters = CountersOf(message.payload);
            if (counters.index != 0) m_counters.push_back(counters);
        },
        NetlinkSocket::Lengths::kTried);
    if (error != 0) return Explain(error);
    if (AddNames()) return 0;
    error = ReadNames();
    // One that came after the names is left out until the next time.
    if (error == 0 && !AddNames()) {
        std::erase_if(m_counters, [](const auto& counters) { return counters.name == nullptr; });
    }
    return error;
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
        if (snapshot.isConsistent || attempt == kSnapshotAttempts) break;
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
