// kemdctl network watch: a line for each change, with what was before.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "base/unique_fd.h"
#include "kemdctl/network/command.h"
#include "kemdctl/network/facts.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

struct Difference {
    std::string name;  // as in JSON
    std::string before;
    std::string after;
};

// What `state` says, or what the traffic changes.
bool IsLeftOut(uint32_t field) {
    return field == KEMD_NET_INDEX || field == KEMD_NET_FLAGS || field == KEMD_NET_OPER_STATE ||
           (field >= KEMD_NET_CARRIER && field <= KEMD_NET_CARRIER_DOWNS) ||
           (field >= KEMD_NET_RX_PACKETS && field <= KEMD_NET_RX_OTHER_HOST_DROPPED) ||
           field == KEMD_NET_LINK_DETECTED || field >= KEMD_NET_SIGNAL_QUALITY;
}

// In local time.
std::string TimeText(int64_t nanoseconds) {
    constexpr int64_t kSecond = 1000000000;
    const time_t seconds = nanoseconds / kSecond;
    tm parts{};
    char text[32] = "";
    if (localtime_r(&seconds, &parts) != nullptr) std::strftime(text, sizeof text, "%F %T", &parts);
    char fraction[16] = "";
    std::snprintf(fraction, sizeof fraction, ".%03d",
                  static_cast<int>(nanoseconds % kSecond / 1000000));
    return std::string(text) + fraction;
}

// In microseconds, as many readers of JSON hold 53 bits.
int64_t JsonTime(int64_t nanoseconds) {
    return nanoseconds / 1000;
}

std::string Summary(InterfaceView interface) {
    return Printable(interface.TextOr(KEMD_NET_KIND)) + ", " + StateOf(interface) +
           (interface.Addresses().empty() ? "" : ", " + Joined(AddressTexts(interface)));
}

class Watcher {
  public:
    Watcher(ReportWriter& report, const InterfaceFilter& filter, bool asJson)
        : m_report(report), m_filter(filter), m_asJson(asJson) {}
    int Run();

  private:
    static void OnChange(void* user, const KemdNetworkChange* change) {
        static_cast<Watcher*>(user)->Show(*change);
    }
    void Show(const KemdNetworkChange& change);
    [[nodiscard]] std::vector<Difference> Compare(InterfaceView before, InterfaceView after) const;
    [[nodiscard]] Difference CompareRoutes(const KemdNetworkRoute* before,
                                           const KemdNetworkRoute* after) const;
    void ShowChange(const KemdNetworkChange& change, InterfaceView interface,
                    const std::vector<Difference>& differences) const;
    void ShowBegin(const NetworkView& view) const;
    [[nodiscard]] int Loop(int signals) const;

    ReportWriter& m_report;
    const InterfaceFilter& m_filter;
    bool m_asJson;
    InterfaceNames m_names;
    NetworkWatchHandle m_watch;
};

std::vector<Difference> Watcher::Compare(InterfaceView before, InterfaceView after) const {
    std::vector<Difference> differences;
    const auto compare = [&](std::string name, const std::string& old, const std::string& now) {
        if (old != now) differences.push_back({std::move(name), old, now});
    };
    compare("state", StateOf(before), StateOf(after));
    ForEachField([&](uint32_t field, const KemdNetworkFieldInfo& info) {
        if (IsLeftOut(field)) return;
        compare(info.name, FieldText(before, field, m_names).value_or("none"),
                FieldText(after, field, m_names).value_or("none"));
    });
    compare("addresses", Joined(AddressTexts(before)), Joined(AddressTexts(after)));
    compare("alternative_names", Printable(Joined(before.List(KEMD_NETWORK_ALTERNATIVE_NAMES))),
            Printable(Joined(after.List(KEMD_NETWORK_ALTERNATIVE_NAMES))));
    // Where the state does not show it: a link that was lost and came back.
    if (StateOf(before) == StateOf(after)) {
        compare("carrier_changes", before.TextOr(KEMD_NET_CARRIER_CHANGES),
                after.TextOr(KEMD_NET_CARRIER_CHANGES));
    }
    if (differences.empty()) {
        compare("flags", before.TextOr(KEMD_NET_FLAGS), after.TextOr(KEMD_NET_FLAGS));
    }
    return differences;
}

Difference Watcher::CompareRoutes(const KemdNetworkRoute* before,
                                  const KemdNetworkRoute* after) const {
    const bool isMoved =
        before != nullptr && after != nullptr && before->interface != after->interface;
    const auto text = [&](const KemdNetworkRoute* route) {
        const auto name = isMoved ? m_names.find(route->interface) : m_names.end();
        return RouteText(route, name != m_names.end() ? Printable(name->second) : "");
    };
    return {"route", text(before), text(after)};
}

struct What {
    uint32_t what;
    const char* word;
};
constexpr What kWhat[] = {
    {KEMD_NETWORK_ADDED, "added"},     {KEMD_NETWORK_REMOVED, "removed"},
    {KEMD_NETWORK_RENAMED, "renamed"}, {KEMD_NETWORK_UP, "up"},
    {KEMD_NETWORK_CARRIER, "carrier"}, {KEMD_NETWORK_ADDRESS, "address"},
    {KEMD_NETWORK_MASTER, "master"},   {KEMD_NETWORK_ROUTE, "route"},
    {KEMD_NETWORK_SPEED, "speed"},     {KEMD_NETWORK_OTHER, "other"},
};

void Watcher::Show(const KemdNetworkChange& change) {
    const InterfaceView before = change.before;
    const InterfaceView after = change.after;
    const InterfaceView interface = after ? after : before;
    const uint64_t index = interface ? interface.Number(KEMD_NET_INDEX).value_or(0) : 0;
    if (after) m_names[index] = after.TextOr(KEMD_NET_NAME);
    const auto isWanted = [this](InterfaceView each) { return each && m_filter.Matches(each); };
    if (interface ? !isWanted(before) && !isWanted(after) : !m_filter.IsEmpty()) return;

    std::vector<Difference> differences;
    if ((change.what & KEMD_NETWORK_ROUTE) != 0) {
        differences.push_back(CompareRoutes(change.routeBefore, change.routeAfter));
    } else if (before && after) {
        differences = Compare(before, after);
        if (differences.empty()) return;
    }
    ShowChange(change, interface, differences);
    if (!after && change.what == KEMD_NETWORK_REMOVED) m_names.erase(index);
}

void Watcher::ShowChange(const KemdNetworkChange& change, InterfaceView interface,
                         const std::vector<Difference>& differences) const {
    std::string text;
    if (change.what == KEMD_NETWORK_ADDED) text = "added: " + Summary(interface);
    if (change.what == KEMD_NETWORK_REMOVED) text = "removed (was " + Summary(interface) + ")";
    ReportWriter line(m_asJson);
    line.OpenObject();
    line.Number("time", JsonTime(change.time));
    line.List("what", kWhat, [&](const What& each) {
        if ((change.what & each.what) != 0) line.Text({}, each.word);
    });
    if (interface) line.Object("interface", [&] { StateRow(line, interface); });
    line.OpenObject("changes");
    for (const auto& [name, before, after] : differences) {
        std::string label = name;
        for (char& c : label) c = c == '_' ? ' ' : c;
        if (!text.empty()) text += ", ";
        text.append(label).append(" ").append(after).append(" (was ").append(before).append(")");
        line.Object(name, [&, &was = before, &is = after] {
            line.Text("before", was);
            line.Text("after", is);
        });
    }
    line.Close();
    const std::string who = interface ? Printable(interface.TextOr(KEMD_NET_NAME)) + ": " : "";
    line.Line(TimeText(change.time) + "  " + who + text);
    line.Finish(kYes);
    FlushOutput();
}

// From when on, and with what: who reads this misses nothing that follows.
void Watcher::ShowBegin(const NetworkView& view) const {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const int64_t time = int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
    std::vector<InterfaceView> wanted = view.Interfaces();
    std::erase_if(wanted, [this](InterfaceView each) { return !m_filter.Matches(each); });
    ReportWriter line(m_asJson);
    line.OpenObject();
    line.Number("time", JsonTime(time));
    line.List("interfaces", wanted,
              [&](InterfaceView each) { line.Object({}, [&] { StateRow(line, each); }); });
    StateNotes(line, view);
    line.Line(TimeText(time) + "  watching " + Counted(wanted.size(), "interface"));
    line.Finish(kYes);
    FlushOutput();
}

int Watcher::Loop(int signals) const {
    enum { kChanges, kSignals, kReader, kCount };
    // Of the reader only that it has gone is noticed, so that a pipe ends at once.
    std::array<pollfd, kCount> waited = {{{KemdNetworkWatchDescriptor(m_watch.get()), POLLIN, 0},
                                          {signals, POLLIN, 0},
                                          {STDOUT_FILENO, 0, 0}}};
    while (!HasWriteFailed()) {
        if (poll(waited.data(), waited.size(), -1) < 0) {
            if (errno == EINTR) continue;
            Complain("cannot wait for changes: %s", std::strerror(errno));
            return kError;
        }
        if (waited[kSignals].revents != 0 || waited[kReader].revents != 0) return kYes;
        const int error = KemdNetworkWatchWait(m_watch.get(), 0);
        if (error == 0 || error == ETIMEDOUT) continue;
        Complain("cannot read what changed: %s", std::strerror(error));
        return kError;
    }
    return kError;
}

int Watcher::Run() {
    m_report.SetStream();
    // Before anything is read, so that an interrupt ends this in order whenever it comes. One that
    // the caller ignores stays ignored: if it were blocked, it would still come.
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM}) {
        struct sigaction action {};
        (void)sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN) sigaddset(&set, signal);
    }
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    const UniqueFd signals(signalfd(-1, &set, SFD_CLOEXEC));
    KemdNetworkWatch* watch = nullptr;
    const int error = signals.Get() < 0
                          ? errno
                          : KemdNetworkWatchOpen(&watch, KEMD_NETWORK_HERE,
                                                 KEMD_NETWORK_ADDRESSES | KEMD_NETWORK_ROUTES |
                                                     KEMD_NETWORK_HARDWARE,
                                                 OnChange, this);
    m_watch.reset(watch);
    KemdNetworkSnapshot* snapshot = nullptr;
    if (error != 0 || KemdNetworkWatchSnapshot(watch, &snapshot) != 0) {
        Complain("cannot watch the network interfaces: %s",
                 std::strerror(error != 0 ? error : ENOMEM));
        return kError;
    }
    const NetworkView view(snapshot);
    m_names = NamesOf(view);
    ShowBegin(view);
    return Loop(signals.Get());
}

}  // namespace

int WatchInterfaces(ReportWriter& report, const InterfaceFilter& filter, bool asJson) {
    return Watcher(report, filter, asJson).Run();
}
