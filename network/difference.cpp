#include "network/difference.h"

#include <linux/if.h>

#include <algorithm>
#include <cstring>

#include "network/fields.h"

namespace {

using Interface = KemdNetworkInterface;
using Route = KemdNetworkRoute;

constexpr uint64_t kCarrierFlags = IFF_RUNNING | IFF_LOWER_UP | IFF_DORMANT;

bool AreEqual(const Interface& a, const Interface& b, std::initializer_list<uint32_t> fields) {
    return std::all_of(fields.begin(), fields.end(),
                       [&](uint32_t field) { return a.Equals(b, field); });
}

// Each router advertisement renews the lifetimes.
KemdNetworkAddress WithoutLifetimes(KemdNetworkAddress address) {
    address.preferredSeconds = address.validSeconds = 0;
    return address;
}

int Compare(const KemdNetworkAddress& a, const KemdNetworkAddress& b) {
    const KemdNetworkAddress one = WithoutLifetimes(a);
    const KemdNetworkAddress other = WithoutLifetimes(b);
    return std::memcmp(&one, &other, sizeof one);
}

// In any order: a dump has them in that of the kernel, a watch in that of their arrival.
bool HaveEqualAddresses(const Interface& a, const Interface& b) {
    const auto isSame = [](const auto& one, const auto& other) { return Compare(one, other) == 0; };
    if (a.addresses.size() != b.addresses.size()) return false;
    if (std::equal(a.addresses.begin(), a.addresses.end(), b.addresses.begin(), isSame)) {
        return true;
    }
    auto ours = a.addresses;
    auto theirs = b.addresses;
    for (auto* addresses : {&ours, &theirs}) {
        std::sort(addresses->begin(), addresses->end(),
                  [](const auto& one, const auto& other) { return Compare(one, other) < 0; });
    }
    return std::equal(ours.begin(), ours.end(), theirs.begin(), isSame);
}

// Fields that have a bit of their own, or no meaning as a change.
bool IsOther(uint32_t field) {
    switch (field) {
        case KEMD_NET_NAME:
        case KEMD_NET_FLAGS:
        case KEMD_NET_MASTER:
        case KEMD_NET_OPER_STATE:
        case KEMD_NET_CARRIER:
        case KEMD_NET_CARRIER_CHANGES:
        case KEMD_NET_CARRIER_UPS:
        case KEMD_NET_CARRIER_DOWNS:
            return false;
        default:
            break;
    }
    const bool isCounter = field >= KEMD_NET_RX_PACKETS && field <= KEMD_NET_RX_OTHER_HOST_DROPPED;
    return !isCounter && FindField(field)->part == 0;
}

bool AreOthersEqual(const Interface& a, const Interface& b) {
    constexpr uint64_t kOwnFlags = kCarrierFlags | IFF_UP;
    for (uint32_t field = 0; field < KEMD_NET_FIELDS; ++field) {
        if (IsOther(field) && !a.Equals(b, field)) return false;
    }
    return ((a.Number(KEMD_NET_FLAGS) ^ b.Number(KEMD_NET_FLAGS)) & ~kOwnFlags) == 0 &&
           a.alternativeNames == b.alternativeNames;
}

bool IsSame(const Route& a, const Route& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Those of `routes` that `others` does not have.
std::vector<const Route*> Without(const std::vector<Route>& routes,
                                  const std::vector<Route>& others) {
    std::vector<const Route*> rest;
    for (const Route& route : routes) {
        if (std::none_of(others.begin(), others.end(),
                         [&](const Route& other) { return IsSame(route, other); })) {
            rest.push_back(&route);
        }
    }
    return rest;
}

}  // namespace

uint32_t Difference(const Interface* before, const Interface* after) {
    if (before == nullptr || after == nullptr) {
        if (before == after) return 0;
        return before == nullptr ? KEMD_NETWORK_ADDED : KEMD_NETWORK_REMOVED;
    }
    const uint64_t flags = before->Number(KEMD_NET_FLAGS) ^ after->Number(KEMD_NET_FLAGS);
    const auto changed = [&](uint32_t what, std::initializer_list<uint32_t> fields) {
        return AreEqual(*before, *after, fields) ? 0 : what;
    };
    uint32_t what = changed(KEMD_NETWORK_RENAMED, {KEMD_NET_NAME});
    if ((flags & IFF_UP) != 0) what |= KEMD_NETWORK_UP;
    if ((flags & kCarrierFlags) != 0) what |= KEMD_NETWORK_CARRIER;
    what |= changed(KEMD_NETWORK_CARRIER,
                    {KEMD_NET_CARRIER, KEMD_NET_CARRIER_CHANGES, KEMD_NET_OPER_STATE});
    what |= changed(KEMD_NETWORK_MASTER, {KEMD_NET_MASTER});
    what |= changed(KEMD_NETWORK_SPEED, {KEMD_NET_SPEED, KEMD_NET_DUPLEX});
    if (!HaveEqualAddresses(*before, *after)) what |= KEMD_NETWORK_ADDRESS;
    if (!AreOthersEqual(*before, *after)) what |= KEMD_NETWORK_OTHER;
    return what;
}

std::vector<RouteDifference> RouteDifferences(const std::vector<Route>& before,
                                              const std::vector<Route>& after) {
    std::vector<const Route*> gone = Without(before, after);
    std::vector<RouteDifference> differences;
    for (const Route* fresh : Without(after, before)) {
        const auto pair = std::find_if(gone.begin(), gone.end(), [&](const Route* old) {
            return old->family == fresh->family && old->table == fresh->table &&
                   old->metric == fresh->metric;
        });
        differences.push_back({pair != gone.end() ? *pair : nullptr, fresh});
        if (pair != gone.end()) gone.erase(pair);
    }
    for (const Route* old : gone) differences.push_back({old, nullptr});
    return differences;
}
