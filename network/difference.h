// What is different between two states: of an interface, of the default routes.
#pragma once

#include <cstdint>
#include <vector>

#include "network/interface.h"

// KEMD_NETWORK_ADDED ...; null: there is none. Counters and lifetimes are no difference.
[[nodiscard]] uint32_t Difference(const KemdNetworkInterface* before,
                                  const KemdNetworkInterface* after);

// Null: it is new, it is gone.
struct RouteDifference {
    const KemdNetworkRoute* before;
    const KemdNetworkRoute* after;
};
// Routes of the same family, table and metric are taken for one that changed.
[[nodiscard]] std::vector<RouteDifference> RouteDifferences(
    const std::vector<KemdNetworkRoute>& before, const std::vector<KemdNetworkRoute>& after);
