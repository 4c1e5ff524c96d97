// The messages of rtnetlink, without their netlink header. Nothing is traced; what a message does
// not hold is absent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "network/interface.h"

// RTM_NEWLINK: all that it says of an interface; null when it is no such message.
[[nodiscard]] std::shared_ptr<KemdNetworkInterface> ReadLink(
    std::string_view payload, const std::shared_ptr<const NetworkFacts>& facts);
// The attribute IFLA_VFINFO_LIST. `macLength`: how long the addresses of the interface are.
[[nodiscard]] std::vector<KemdNetworkVirtualFunction> ReadVirtualFunctions(std::string_view list,
                                                                           size_t macLength);

// RTM_NEWADDR, RTM_DELADDR.
struct AddressMessage {
    uint32_t interface;
    KemdNetworkAddress address;
};
[[nodiscard]] std::optional<AddressMessage> ReadAddress(std::string_view payload);
// The same address of an interface, whatever else changed.
[[nodiscard]] bool IsSameAddress(const KemdNetworkAddress& a, const KemdNetworkAddress& b);

// RTM_NEWROUTE: appends one route for each next hop; nothing unless it is a default route.
void ReadRoutes(std::string_view payload, std::vector<KemdNetworkRoute>& routes);
[[nodiscard]] bool IsDefaultRoute(std::string_view payload);
void SortRoutes(std::vector<KemdNetworkRoute>& routes);
