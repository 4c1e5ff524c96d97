// kemdctl network show: all that is known of one interface. The library's table of fields says what
// there is; here is only where groups begin and which lists stand in them.
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>

#include "kemdctl/network/command.h"
#include "kemdctl/network/facts.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "network/address_text.h"

namespace {

struct Group {
    uint32_t first;  // field
    const char* title;
};
constexpr Group kGroups[] = {{KEMD_NET_INDEX, "Identity"},
                             {KEMD_NET_FLAGS, "State"},
                             {KEMD_NET_MTU, "Link layer"},
                             {KEMD_NET_PARENT, "Relations"},
                             {KEMD_NET_VLAN_ID, "Of its kind"},
                             {KEMD_NET_RX_PACKETS, "Counters"},
                             {KEMD_NET_BUS, "Hardware"},
                             {KEMD_NET_PAUSE_AUTO, "Settings"},
                             {KEMD_NET_MODULE_TYPE, "Plugged module"},
                             {KEMD_NET_TEAM_MODE, "Team"}};

struct ListRow {
    uint32_t list;
    const char* name;
    uint32_t last;  // the field that it follows
};
constexpr ListRow kLists[] = {
    {KEMD_NETWORK_ALTERNATIVE_NAMES, "alternative_names", KEMD_NET_ALIAS},
    {KEMD_NETWORK_SUPPORTED_MODES, "supported_modes", KEMD_NET_LINK_DOWN_DETAIL},
    {KEMD_NETWORK_ADVERTISED_MODES, "advertised_modes", KEMD_NET_LINK_DOWN_DETAIL},
    {KEMD_NETWORK_PEER_MODES, "peer_modes", KEMD_NET_LINK_DOWN_DETAIL},
    {KEMD_NETWORK_FEATURES, "features", KEMD_NET_CHANNELS_COMBINED_MAX},
    {KEMD_NETWORK_CHANGEABLE_FEATURES, "changeable_features", KEMD_NET_CHANNELS_COMBINED_MAX},
    {KEMD_NETWORK_WANTED_FEATURES, "wanted_features", KEMD_NET_CHANNELS_COMBINED_MAX},
    {KEMD_NETWORK_WAKE_MODES, "wake_modes", KEMD_NET_CHANNELS_COMBINED_MAX},
    {KEMD_NETWORK_SUPPORTED_WAKE_MODES, "supported_wake_modes", KEMD_NET_CHANNELS_COMBINED_MAX},
};

struct FlagWord {
    uint32_t flag;
    const char* word;
};
constexpr FlagWord kAddressFlags[] = {
    {IFA_F_SECONDARY, "secondary"},       {IFA_F_NODAD, "nodad"},
    {IFA_F_OPTIMISTIC, "optimistic"},     {IFA_F_DADFAILED, "dadfailed"},
    {IFA_F_HOMEADDRESS, "home"},          {IFA_F_DEPRECATED, "deprecated"},
    {IFA_F_TENTATIVE, "tentative"},       {IFA_F_PERMANENT, "permanent"},
    {IFA_F_MANAGETEMPADDR, "mngtmpaddr"}, {IFA_F_NOPREFIXROUTE, "noprefixroute"},
    {IFA_F_MCAUTOJOIN, "autojoin"},       {IFA_F_STABLE_PRIVACY, "stable-privacy"}};

std::vector<std::string> FlagWords(uint32_t flags) {
    std::vector<std::string> words;
    for (const auto& [flag, word] : kAddressFlags) {
        if ((flags & flag) != 0) words.emplace_back(word);
    }
    return words;
}

std::string ScopeWord(uint8_t scope) {
    switch (scope) {
        case RT_SCOPE_UNIVERSE:
            return "global";
        case RT_SCOPE_SITE:
            return "site";
        case RT_SCOPE_LINK:
            return "link";
        case RT_SCOPE_HOST:
            return "host";
        default:
            return std::to_string(scope);
    }
}

std::vector<std::string> Split(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

class InterfaceReport {
  public:
    InterfaceReport(ReportWriter& report, const NetworkView& view, InterfaceView interface)
        : m_report(report), m_view(view), m_interface(interface), m_names(NamesOf(view)) {}

    void Fields();
    void Addresses();
    void Routes();
    void VirtualFunctions();
    void Statistics();
    // What is there and may not be seen, or could not be read.
    void Absent();

  private:
    // With its title before the first line of a group.
    void Line(const std::string& label, const std::string& text);
    void Texts(const char* name, const std::vector<std::string>& texts, bool isShown = true);
    void Field(uint32_t field, const KemdNetworkFieldInfo& info);
    void StateValue(uint32_t field, const KemdNetworkFieldInfo& info);
    void List(const ListRow& row);
    void StateAddress(const KemdNetworkAddress& address);
    void StateRoute(const KemdNetworkRoute& route);
    void NoteError(const char* name, int error, const char* label = nullptr);
    void Relations();

    ReportWriter& m_report;
    const NetworkView& m_view;
    InterfaceView m_interface;
    InterfaceNames m_names;
    const char* m_title = nullptr;  // not shown yet
    struct AbsentValue {
        const char* name;
        const char* label;  // of all that are absent together; null: the name
        int error;
    };
    std::vector<AbsentValue> m_absent;
};

std::string Label(std::string name) {
    for (char& c : name) c = c == '_' ? ' ' : c;
    return "  " + name;
}

void InterfaceReport::Line(const std::string& label, const std::string& text) {
    if (m_title != nullptr) m_report.Line(m_title);
    m_title = nullptr;
    m_report.Field(label, text);
}

void InterfaceReport::Texts(const char* name, const std::vector<std::string>& texts, bool isShown) {
    m_report.List(name, texts, [&](const std::string& text) { m_report.Text({}, text); });
    if (isShown) Line(Label(name), Printable(Joined(texts)));
}

void InterfaceReport::NoteError(const char* name, int error, const char* label) {
    if (error != EOPNOTSUPP && error != ENODATA) m_absent.push_back({name, label, error});
}

void InterfaceReport::Field(uint32_t field, const KemdNetworkFieldInfo& info) {
    int error = 0;
    const auto text = FieldText(m_interface, field, m_names, &error);
    const bool isOfModule = info.part == KEMD_NETWORK_MODULE;
    if (!text) return NoteError(info.name, error, isOfModule ? "plugged_module" : nullptr);
    StateValue(field, info);
    Line(Label(info.name), *text);
}

void InterfaceReport::StateValue(uint32_t field, const KemdNetworkFieldInfo& info) {
    const uint64_t number = m_interface.Number(field).value_or(0);
    const std::string text = m_interface.TextOr(field);
    switch (info.kind) {
        case KEMD_NETWORK_KIND_NUMBER:
            return m_report.Number(info.name, number);
        case KEMD_NETWORK_KIND_YES:
            return m_report.Flag(info.name, number != 0);
        case KEMD_NETWORK_KIND_FLAGS:
            return Texts(info.name, Split(text), false);
        case KEMD_NETWORK_KIND_INDEX:
            break;
        default:
            return m_report.Text(info.name, text);
    }
    m_report.Object(info.name, [&] {
        m_report.Number("index", number);
        const auto name = m_names.find(number);
        if (name != m_names.end() && IsHere(m_interface, field)) {
            m_report.Text("name", name->second);
        }
    });
}

void InterfaceReport::List(const ListRow& row) {
    const std::vector<std::string> texts = m_interface.List(row.list);
    size_t size = 0;
    const int error = KemdNetworkListAt(m_interface.Get(), row.list, 0, nullptr, &size);
    const bool isEmpty = texts.empty() && error == ENOENT;
    if (!texts.empty() || isEmpty) return Texts(row.name, texts, !isEmpty);
    NoteError(row.name, error, row.list >= KEMD_NETWORK_WAKE_MODES ? "wake-on-LAN" : nullptr);
}

// What the fields do not have: the members, and the slot.
void InterfaceReport::Relations() {
    std::vector<std::string> members;
    const auto index = m_interface.Number(KEMD_NET_INDEX).value_or(0);
    while (const KemdNetworkInterface* member =
               KemdNetworkMemberAt(m_view.Get(), index, members.size())) {
        members.push_back(InterfaceView(member).TextOr(KEMD_NET_NAME));
    }
    if (!members.empty()) Texts("members", members);
}

void InterfaceReport::Fields() {
    ForEachField([this](uint32_t field, const KemdNetworkFieldInfo& info) {
        for (const auto& [first, title] : kGroups) {
            if (field == first) m_title = title;
        }
        if (field == KEMD_NET_FLAGS) {
            m_report.Text("state", StateOf(m_interface));
            Line("  state", StateOf(m_interface));
        }
        Field(field, info);
        for (const ListRow& row : kLists) {
            if (row.last == field) List(row);
        }
        if (field == KEMD_NET_SWITCH_ID) Relations();
        if (field != KEMD_NET_BUS_ADDRESS) return;
        const auto slot = SlotOf(m_interface);
        m_report.Number("slot", slot);
        if (slot) Line("  slot", std::to_string(*slot));
    });
}

std::string LifetimeText(uint32_t seconds) {
    return seconds == KEMD_NETWORK_FOREVER ? "forever" : Counted(seconds, "second");
}

std::string DescribeAddress(const KemdNetworkAddress& address) {
    std::string text = AddressText(address);
    if (address.hasPeer != 0) text += " peer " + AddressText(address.family, address.peer);
    if (address.hasBroadcast != 0) {
        text += " broadcast " + AddressText(address.family, address.broadcast);
    }
    text += " scope " + ScopeWord(address.scope);
    if (address.flags != 0) text += " " + Joined(FlagWords(address.flags));
    if (address.label[0] != '\0') text += std::string(" label ") + address.label;
    if (address.metric != 0) text += " metric " + std::to_string(address.metric);
    if (address.validSeconds == KEMD_NETWORK_FOREVER) return text;
    return text + ", valid " + LifetimeText(address.validSeconds) + ", preferred " +
           LifetimeText(address.preferredSeconds);
}

const char* FamilyWord(uint32_t family) {
    return family == AF_INET ? "ipv4" : "ipv6";
}

void InterfaceReport::StateAddress(const KemdNetworkAddress& address) {
    const auto put = [&](const char* key, bool isThere, const uint8_t* bytes) {
        if (isThere) m_report.Text(key, AddressText(address.family, bytes));
    };
    const auto lifetime = [&](const char* key, uint32_t seconds) {
        if (seconds != KEMD_NETWORK_FOREVER) m_report.Number(key, seconds);
    };
    m_report.OpenObject();
    m_report.Text("family", FamilyWord(address.family));
    put("address", true, address.address);
    m_report.Number("prefix", address.prefix);
    m_report.Text("scope", ScopeWord(address.scope));
    Texts("flags", FlagWords(address.flags), false);
    put("peer", address.hasPeer != 0, address.peer);
    put("broadcast", address.hasBroadcast != 0, address.broadcast);
    if (address.label[0] != '\0') m_report.Text("label", address.label);
    if (address.metric != 0) m_report.Number("metric", address.metric);
    lifetime("valid_seconds", address.validSeconds);
    lifetime("preferred_seconds", address.preferredSeconds);
    m_report.Close();
}

void InterfaceReport::Addresses() {
    m_title = "Addresses";
    m_report.List("addresses", m_interface.Addresses(), [this](const KemdNetworkAddress& address) {
        Line(std::string("  ") + FamilyWord(address.family), Printable(DescribeAddress(address)));
        StateAddress(address);
    });
}

void InterfaceReport::StateRoute(const KemdNetworkRoute& route) {
    m_report.OpenObject();
    m_report.Text("family", FamilyWord(route.family));
    m_report.Text("type", RouteTypeWord(route));
    if (route.gatewayFamily != 0) {
        m_report.Text("gateway", AddressText(route.gatewayFamily, route.gateway));
    }
    m_report.Number("table", route.table);
    m_report.Number("metric", route.metric);
    m_report.Number("protocol", route.protocol);
    m_report.Text("scope", ScopeWord(route.scope));
    if (route.hasSource != 0) m_report.Text("source", AddressText(route.family, route.source));
    if (route.weight != 0) m_report.Number("weight", route.weight);
    m_report.List("flags", RouteFlagWords(route),
                  [&](const std::string& word) { m_report.Text({}, word); });
    m_report.Close();
}

void InterfaceReport::Routes() {
    std::vector<KemdNetworkRoute> routes = m_view.Routes();
    const auto index = m_interface.Number(KEMD_NET_INDEX).value_or(0);
    std::erase_if(routes, [&](const KemdNetworkRoute& each) { return each.interface != index; });
    m_title = "Routes";
    m_report.List("routes", routes, [this](const KemdNetworkRoute& route) {
        Line(std::string("  ") + FamilyWord(route.family), RouteText(&route));
        StateRoute(route);
    });
}

std::string HexText(const uint8_t* bytes, uint32_t length) {
    std::string text;
    char part[4];
    for (uint32_t i = 0; i < length; ++i) {
        std::snprintf(part, sizeof part, i == 0 ? "%02x" : ":%02x", bytes[i]);
        text += part;
    }
    return text;
}

void InterfaceReport::VirtualFunctions() {
    m_title = "Virtual functions";
    const auto show = [this](const KemdNetworkVirtualFunction& function) {
        m_report.OpenObject();
        const std::string mac =
            HexText(function.mac, std::min<uint32_t>(function.macLength, sizeof function.mac));
        m_report.Number("number", function.number);
        m_report.Text("mac", mac);
        std::string line = mac;
        const auto put = [&](const char* name, int64_t value) {
            if (value < 0) return;
            m_report.Number(name, value);
            line += "," + Label(name).substr(1) + " " + std::to_string(value);
        };
        put("vlan", function.vlan);
        put("vlan_priority", function.vlanPriority);
        put("min_rate", function.minRate);
        put("max_rate", function.maxRate);
        put("link_state", function.linkState);
        put("spoof_check", function.isSpoofChecked);
        put("trusted", function.isTrusted);
        if (function.hasCounters == 1) {
            const std::pair<const char*, uint64_t> counters[] = {
                {"rx_packets", function.rxPackets}, {"tx_packets", function.txPackets},
                {"rx_bytes", function.rxBytes},     {"tx_bytes", function.txBytes},
                {"rx_dropped", function.rxDropped}, {"tx_dropped", function.txDropped},
                {"broadcast", function.broadcast},  {"multicast", function.multicast}};
            for (const auto& [name, count] : counters) put(name, static_cast<int64_t>(count));
        }
        m_report.Close();
        Line("  " + std::to_string(function.number), line);
    };
    m_report.List("virtual_functions", m_interface.VirtualFunctions(), show);
}

void InterfaceReport::Statistics() {
    m_title = "Statistics of the driver";
    m_report.OpenObject("statistics");
    uint64_t value = 0;
    for (size_t position = 0;; ++position) {
        const auto name = NetworkText([&](char* out, size_t* size) {
            return KemdNetworkStatisticAt(m_interface.Get(), position, out, size, &value);
        });
        if (!name) break;
        m_report.Number(*name, value);
        Line("  " + Printable(*name), std::to_string(value));
    }
    m_report.Close();
}

void InterfaceReport::Absent() {
    m_title = "Not shown";
    m_report.OpenObject("absent");
    std::string last;
    for (const auto& [name, label, error] : m_absent) {
        m_report.Text(name, std::strerror(error));
        const bool needsRights = error == EPERM || error == EACCES;
        const std::string shown = Label(label != nullptr ? label : name);
        const std::string why =
            std::string(std::strerror(error)) + (needsRights ? "; ask as root" : "");
        if (shown + why != last) Line(shown, why);
        last = shown + why;
    }
    m_report.Close();
}

}  // namespace

int ShowInterface(ReportWriter& report, const char* name) {
    const auto view = TakeNetwork(KEMD_NETWORK_ALL);
    if (!view) return kError;
    const InterfaceView interface = view->ByName(name);
    if (!interface) {
        Complain("there is no interface %s", Printable(name).c_str());
        return kNo;
    }
    report.OpenObject();
    report.SetColumn(28);
    InterfaceReport shown(report, *view, interface);
    shown.Fields();
    shown.Addresses();
    shown.Routes();
    shown.VirtualFunctions();
    shown.Statistics();
    shown.Absent();
    StateNotes(report, *view);
    return kYes;
}
