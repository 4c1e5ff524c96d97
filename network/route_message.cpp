// RTM_NEWROUTE: default routes.
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "network/attributes.h"
#include "network/messages.h"

namespace {

void SetGateway(KemdNetworkRoute& route, uint32_t family, std::string_view bytes) {
    if (bytes.size() != 4 && bytes.size() != 16) return;
    route.gatewayFamily = family;
    std::memcpy(route.gateway, bytes.data(), bytes.size());
}

// The next hop's own attributes, which a route with one hop has among the others.
void ReadHop(KemdNetworkRoute& route, const Attributes& attributes) {
    for (const Attribute& attribute : attributes) {
        if (attribute.type == RTA_GATEWAY) SetGateway(route, route.family, attribute.bytes);
        const auto family = HeaderOf<uint16_t>(attribute.bytes);
        if (attribute.type == RTA_VIA && family) {
            SetGateway(route, *family, attribute.bytes.substr(sizeof *family));
        }
        if (attribute.type == RTA_OIF) {
            route.interface = static_cast<uint32_t>(attribute.Number().value_or(0));
        }
    }
}

void ReadHops(const KemdNetworkRoute& route, std::string_view bytes,
              std::vector<KemdNetworkRoute>& routes) {
    for (;;) {
        const auto hop = HeaderOf<rtnexthop>(bytes);
        if (!hop || hop->rtnh_len < sizeof *hop || hop->rtnh_len > bytes.size()) return;
        KemdNetworkRoute one = route;
        one.interface = static_cast<uint32_t>(hop->rtnh_ifindex);
        one.weight = hop->rtnh_hops + 1U;
        one.flags = hop->rtnh_flags;
        ReadHop(one, Attributes(bytes.substr(sizeof *hop, hop->rtnh_len - sizeof *hop)));
        routes.push_back(one);
        bytes = AfterHeader(bytes, hop->rtnh_len);
    }
}

auto Order(const KemdNetworkRoute& route) {
    return std::tuple(
        route.family, route.table, route.metric, route.interface,
        std::string_view(reinterpret_cast<const char*>(route.gateway), sizeof route.gateway));
}

}  // namespace

bool IsDefaultRoute(std::string_view payload) {
    const auto header = HeaderOf<rtmsg>(payload);
    return header && (header->rtm_family == AF_INET || header->rtm_family == AF_INET6) &&
           header->rtm_dst_len == 0 && header->rtm_src_len == 0 &&
           (header->rtm_flags & RTM_F_CLONED) == 0;
}

void ReadRoutes(std::string_view payload, std::vector<KemdNetworkRoute>& routes) {
    if (!IsDefaultRoute(payload)) return;
    const auto header = HeaderOf<rtmsg>(payload);
    KemdNetworkRoute route{};
    route.size = sizeof route;
    route.family = header->rtm_family;
    route.table = header->rtm_table;
    route.type = header->rtm_type;
    route.protocol = header->rtm_protocol;
    route.scope = header->rtm_scope;
    route.flags = header->rtm_flags;
    const Attributes attributes(AfterHeader(payload, sizeof *header));
    if (const auto table = attributes.Find(RTA_TABLE).Number()) {
        route.table = static_cast<uint32_t>(*table);
    }
    route.metric = static_cast<uint32_t>(attributes.Find(RTA_PRIORITY).Number().value_or(0));
    const std::string_view source = attributes.Find(RTA_PREFSRC).bytes;
    route.hasSource = source.size() == 4 || source.size() == 16;
    if (route.hasSource != 0) std::memcpy(route.source, source.data(), source.size());
    const Attribute hops = attributes.Find(RTA_MULTIPATH);
    if (!hops.bytes.empty()) return ReadHops(route, hops.bytes, routes);
    ReadHop(route, attributes);
    routes.push_back(route);
}

void SortRoutes(std::vector<KemdNetworkRoute>& routes) {
    std::stable_sort(routes.begin(), routes.end(),
                     [](const auto& a, const auto& b) { return Order(a) < Order(b); });
}
