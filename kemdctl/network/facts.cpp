#include "kemdctl/network/facts.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <span>
#include <utility>

#include "kemd/pci_slot_map.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "network/address_text.h"

namespace {

constexpr std::string_view kStates[] = {"off", "up", "down", "dormant", "testing", "notpresent"};

constexpr std::pair<uint32_t, const char*> kRouteTypes[] = {{RTN_UNICAST, "unicast"},
                                                            {RTN_BLACKHOLE, "blackhole"},
                                                            {RTN_UNREACHABLE, "unreachable"},
                                                            {RTN_PROHIBIT, "prohibit"},
                                                            {RTN_THROW, "throw"}};
constexpr std::pair<uint32_t, const char*> kRouteFlags[] = {
    {RTNH_F_DEAD, "dead"}, {RTNH_F_LINKDOWN, "linkdown"}, {RTNH_F_ONLINK, "onlink"}};
constexpr std::pair<uint32_t, const char*> kProtocols[] = {
    {RTPROT_KERNEL, "kernel"}, {RTPROT_STATIC, "static"}, {RTPROT_RA, "ra"}, {RTPROT_DHCP, "dhcp"}};

// A number that has no word stands for itself.
std::string WordOr(std::span<const std::pair<uint32_t, const char*>> words, uint32_t value) {
    for (const auto& [number, word] : words) {
        if (number == value) return word;
    }
    return std::to_string(value);
}

bool Describe(uint32_t field, KemdNetworkFieldInfo& info) {
    info.size = sizeof info;
    return KemdNetworkField(field, &info) == 0;
}

}  // namespace

InterfaceNames NamesOf(const NetworkView& view) {
    InterfaceNames names;
    for (const InterfaceView& each : view.Interfaces()) {
        names[each.Number(KEMD_NET_INDEX).value_or(0)] = each.TextOr(KEMD_NET_NAME);
    }
    return names;
}

std::string StateOf(InterfaceView interface) {
    if ((interface.Number(KEMD_NET_FLAGS).value_or(0) & IFF_UP) == 0) return "off";
    std::string state = interface.TextOr(KEMD_NET_OPER_STATE);
    for (const char* const word : {"dormant", "testing", "notpresent"}) {
        if (state == word) return state;
    }
    // The kernel's word follows the carrier, and some drivers never set it.
    return interface.Number(KEMD_NET_CARRIER).value_or(0) != 0 ? "up" : "down";
}

bool IsState(std::string_view word) {
    return std::find(std::begin(kStates), std::end(kStates), word) != std::end(kStates);
}

const char* ColorOf(const std::string& state) {
    return state == "up" ? "32" : state == "off" ? "2" : "31";
}

std::optional<unsigned> SlotOf(InterfaceView interface) {
    unsigned segment = 0;
    unsigned bus = 0;
    unsigned device = 0;
    const auto address = interface.Text(KEMD_NET_BUS_ADDRESS);
    if (!address || std::sscanf(address->c_str(), "%x:%x:%x.", &segment, &bus, &device) != 3)
        return {};
    // The map knows the first segment alone.
    if (segment != 0 || bus > UINT8_MAX || device > UINT8_MAX) return {};
    const uint8_t slot =
        CPciSlotMap::GetPciSlotNumber(static_cast<uint8_t>(bus), static_cast<uint8_t>(device));
    return slot != 0 ? std::optional<unsigned>(slot) : std::nullopt;
}

bool IsHere(InterfaceView interface, uint32_t field) {
    return field != KEMD_NET_PARENT || !interface.Number(KEMD_NET_PARENT_NAME_SPACE);
}

std::optional<std::string> FieldText(InterfaceView interface, uint32_t field,
                                     const InterfaceNames& names, int* error) {
    const auto text = interface.Text(field, error);
    KemdNetworkFieldInfo info{};
    if (!text || !Describe(field, info)) return std::nullopt;
    if (info.kind == KEMD_NETWORK_KIND_YES) return *text == "1" ? "yes" : "no";
    if (info.kind == KEMD_NETWORK_KIND_INDEX) {
        const auto name = names.find(interface.Number(field).value_or(0));
        const bool isNamed = name != names.end() && IsHere(interface, field);
        return isNamed ? Printable(name->second) : "index " + *text;
    }
    return Printable(*text) + (*info.unit != '\0' ? " " : "") + info.unit;
}

std::vector<std::string> AddressTexts(InterfaceView interface) {
    std::vector<std::string> texts;
    std::vector<KemdNetworkAddress> addresses = interface.Addresses();
    const auto isBefore = [](const auto& one, const auto& other) {
        return one.family < other.family;
    };
    // As the kernel sends them; sorting would take memory.
    if (!std::is_sorted(addresses.begin(), addresses.end(), isBefore)) {
        std::stable_sort(addresses.begin(), addresses.end(), isBefore);
    }
    std::transform(addresses.begin(), addresses.end(), std::back_inserter(texts),
                   [](const KemdNetworkAddress& address) { return AddressText(address); });
    return texts;
}

std::string RouteTypeWord(const KemdNetworkRoute& route) {
    return WordOr(kRouteTypes, route.type);
}

std::vector<std::string> RouteFlagWords(const KemdNetworkRoute& route) {
    std::vector<std::string> words;
    for (const auto& [flag, word] : kRouteFlags) {
        if ((route.flags & flag) != 0) words.emplace_back(word);
    }
    return words;
}

std::string RouteText(const KemdNetworkRoute* route, const std::string& device) {
    if (route == nullptr) return "none";
    std::string text = route->type == RTN_UNICAST ? "" : RouteTypeWord(*route) + " ";
    text += "default";
    if (route->gatewayFamily != 0) {
        text += " via " + AddressText(route->gatewayFamily, route->gateway);
    }
    if (!device.empty()) text += " dev " + device;
    // A gateway shows the family.
    if (route->gatewayFamily == 0 && route->family == AF_INET6) text += " (IPv6)";
    text += " metric " + std::to_string(route->metric);
    constexpr uint32_t kMain = 254;
    if (route->table != kMain) text += " table " + std::to_string(route->table);
    if (route->hasSource != 0) text += " from " + AddressText(route->family, route->source);
    if (route->weight != 0) text += " weight " + std::to_string(route->weight);
    if (route->protocol != RTPROT_BOOT) text += " protocol " + WordOr(kProtocols, route->protocol);
    for (const std::string& word : RouteFlagWords(*route)) text += " " + word;
    return text;
}

std::string Joined(const std::vector<std::string>& texts, const char* between) {
    std::string all;
    for (const std::string& text : texts) all += (all.empty() ? "" : between) + text;
    return all.empty() ? "none" : all;
}

void StateRow(ReportWriter& report, InterfaceView interface) {
    report.Number("index", interface.Number(KEMD_NET_INDEX));
    report.Text("name", interface.TextOr(KEMD_NET_NAME));
    const auto plain = [&](const std::string& each) { report.Text({}, each); };
    const auto others = interface.List(KEMD_NETWORK_ALTERNATIVE_NAMES);
    if (!others.empty()) report.List("alternative_names", others, plain);
    report.Text("state", StateOf(interface));
    report.Text("kind", interface.TextOr(KEMD_NET_KIND));
    report.Number("speed", interface.Number(KEMD_NET_SPEED));
    const auto text = [&](const char* key, uint32_t field) {
        if (const auto value = interface.Text(field)) report.Text(key, *value);
    };
    text("mac", KEMD_NET_MAC);
    report.List("addresses", AddressTexts(interface), plain);
    text("driver", KEMD_NET_DRIVER);
    report.Number("slot", SlotOf(interface));
}

void ForEachField(const std::function<void(uint32_t, const KemdNetworkFieldInfo&)>& each) {
    KemdNetworkFieldInfo info{};
    for (uint32_t field = 0; Describe(field, info); ++field) each(field, info);
}
