// kemdctl network: network interfaces, as the kernel has them now or as they change.
#include "kemdctl/network/command.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "kemdctl/commands.h"
#include "kemdctl/network/facts.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/table.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl network [SUBCOMMAND] [OPTION ...]

  list         shows a line for each interface: name, state, kind, speed, MAC,
               driver, slot and addresses
  show NAME    shows all that is known of one, by its name or an alternative one
  watch        shows a line for each change, with what was before; until the
               interrupt key

  --name PATTERN     only interfaces with this name, as 'eth*'
  --state STATE      only those in this state: up, down (no link), off (switched
                     off), dormant, testing, notpresent
  --kind PATTERN     only those of this kind: physical, bridge, bond, vlan, veth ...
  --driver PATTERN   only those of this driver
  --json             results as JSON; of watch an object for each line

Without SUBCOMMAND: list. The filters are for list and watch; one that is given
several times takes what matches any of them. kemd need not run, and any user may
ask; what only root may see is not shown, and standard error says so.
Exit status: 0 done, 1 no such interface, 2 error.
)";

bool MatchesAny(const std::vector<const char*>& patterns, const std::string& text) {
    return patterns.empty() ||
           std::any_of(patterns.begin(), patterns.end(), [&text](const char* pattern) {
               return fnmatch(pattern, text.c_str(), 0) == 0;
           });
}

bool MatchesAny(const std::vector<const char*>& patterns, InterfaceView interface, uint32_t field) {
    return patterns.empty() || MatchesAny(patterns, interface.TextOr(field));
}

int UsageError(const std::string& what) {
    Complain("%s; see kemdctl network --help", what.c_str());
    return kError;
}

TableRow RowOf(InterfaceView interface) {
    const auto text = [&](uint32_t field) { return FieldText(interface, field, {}).value_or("-"); };
    const std::string state = StateOf(interface);
    const auto slot = SlotOf(interface);
    return {text(KEMD_NET_NAME),
            {state, ColorOf(state)},
            text(KEMD_NET_KIND),
            text(KEMD_NET_SPEED),
            text(KEMD_NET_MAC),
            text(KEMD_NET_DRIVER),
            slot ? std::to_string(*slot) : "-",
            interface.Addresses().empty() ? "" : Joined(AddressTexts(interface))};
}

int ListInterfaces(ReportWriter& report, const InterfaceFilter& filter) {
    const auto view =
        TakeNetwork(KEMD_NETWORK_ADDRESSES | KEMD_NETWORK_DRIVER | KEMD_NETWORK_LINK_SPEED);
    if (!view) return kError;
    std::vector<InterfaceView> wanted = view->Interfaces();
    std::erase_if(wanted, [&](InterfaceView each) { return !filter.Matches(each); });
    report.OpenObject();
    report.List("interfaces", wanted,
                [&](InterfaceView each) { report.Object({}, [&] { StateRow(report, each); }); });
    StateNotes(report, *view);
    if (wanted.empty()) {
        Complain("no interface matches");
        return kNo;
    }
    report.ForPeople([&] {
        std::vector<TableRow> rows = {
            {"name", "state", "kind", "speed", "MAC", "driver", "slot", "addresses"}};
        std::transform(wanted.begin(), wanted.end(), std::back_inserter(rows), RowOf);
        ShowTable(report, rows);
    });
    return kYes;
}

// False, after a complaint, when one has no value or no such state exists.
bool TakeFilter(CommandLine& line, InterfaceFilter& filter) {
    const struct {
        const char* option;
        std::vector<const char*>* values;
    } filters[] = {{"--name", &filter.names},
                   {"--state", &filter.states},
                   {"--kind", &filter.kinds},
                   {"--driver", &filter.drivers}};
    for (const auto& [option, values] : filters) {
        *values = line.TakeValues(option);
        if (std::find(values->begin(), values->end(), nullptr) == values->end()) continue;
        (void)UsageError(std::string(option) + ": a value is missing");
        return false;
    }
    for (const char* state : filter.states) {
        if (IsState(state)) continue;
        (void)UsageError("no interface is ever in the state " + Printable(state));
        return false;
    }
    return true;
}

}  // namespace

bool InterfaceFilter::Matches(InterfaceView interface) const {
    const auto isState = [&](const char* wanted) { return StateOf(interface) == wanted; };
    const bool isWanted = (states.empty() || std::any_of(states.begin(), states.end(), isState)) &&
                          MatchesAny(kinds, interface, KEMD_NET_KIND) &&
                          MatchesAny(drivers, interface, KEMD_NET_DRIVER);
    if (!isWanted || MatchesAny(names, interface, KEMD_NET_NAME)) return isWanted;
    const auto others = interface.List(KEMD_NETWORK_ALTERNATIVE_NAMES);
    return std::any_of(others.begin(), others.end(),
                       [&](const std::string& other) { return MatchesAny(names, other); });
}

std::optional<NetworkView> TakeNetwork(uint32_t parts) {
    std::string error;
    auto view = NetworkView::Take(parts, error);
    if (!view) {
        Complain("cannot read the network interfaces: %s", Printable(error).c_str());
        return std::nullopt;
    }
    for (const std::string& note : view->Notes()) Complain("note: %s", Printable(note).c_str());
    if (KemdNetworkIsConsistent(view->Get()) == 0) {
        Complain("note: interfaces came and went while they were read; some may be missing");
    }
    return view;
}

void StateNotes(ReportWriter& report, const NetworkView& view) {
    report.List("notes", view.Notes(), [&](const std::string& note) { report.Text({}, note); });
    report.Flag("consistent", KemdNetworkIsConsistent(view.Get()) != 0);
}

int RunNetwork(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 5> kOptions = {"--json", "--name", "--state", "--kind",
                                                          "--driver"};
    if (line.Has("--help")) {
        report.SetJson(false);
        Write(kHelp);
        return kYes;
    }
    InterfaceFilter filter;
    if (!TakeFilter(line, filter)) return kError;
    // First, as the value of a misspelt option would be taken for a subcommand.
    if (!line.HasOnly(kOptions)) return UsageError("this option does not fit network");
    const std::string_view name = line.words.empty() ? "list" : line.TakeCommand();
    const bool isShow = name == "show";
    if (!isShow && name != "list" && name != "watch") {
        return UsageError("unknown subcommand " + Printable(name));
    }
    const std::span<const std::string_view> options(kOptions.data(), isShow ? 1 : kOptions.size());
    if (!line.HasOnly(options)) return UsageError("these options do not fit " + std::string(name));
    if (isShow && line.words.size() != 1) return UsageError("show takes the name of an interface");
    if (isShow) return ShowInterface(report, line.words[0]);
    if (!line.HasNoWords()) return UsageError("too many words for " + std::string(name));
    if (name == "watch") return WatchInterfaces(report, filter, line.Has("--json"));
    return ListInterfaces(report, filter);
}
