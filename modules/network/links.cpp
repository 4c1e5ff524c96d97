#include "modules/network/links.h"

#include <fnmatch.h>
#include <net/if.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>

#include "kemd/trace.h"
#include "network/address_text.h"

namespace {

constexpr const char* kTag = "network";

bool IsLoopback(InterfaceView interface) {
    return (interface.Number(KEMD_NET_FLAGS).value_or(0) & IFF_LOOPBACK) != 0;
}

// As a trace shows it.
std::string Shown(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return text;
}
std::string NameOf(InterfaceView interface) {
    return interface.TextOr(KEMD_NET_NAME);
}

LinkFacts FactsOf(InterfaceView interface) {
    LinkFacts facts;
    const bool isOn = (interface.Number(KEMD_NET_FLAGS).value_or(0) & IFF_UP) != 0;
    const bool hasCarrier = interface.Number(KEMD_NET_CARRIER).value_or(0) != 0;
    facts.state = !isOn ? LinkFacts::kOff : hasCarrier ? LinkFacts::kUp : LinkFacts::kDown;
    facts.mac = interface.TextOr(KEMD_NET_MAC);
    facts.hadLink = facts.state == LinkFacts::kUp;
    if (!facts.hadLink) return facts;
    const auto speed = interface.Text(KEMD_NET_SPEED);
    if (speed) facts.speed = *speed + " Mbit/s";
    facts.duplex = interface.TextOr(KEMD_NET_DUPLEX);
    return facts;
}

constexpr const char* kStateWords[] = {"off", "down", "up"};

// "up|1000 Mbit/s|full|02:00:00:00:00:01|yes"
std::string Packed(const LinkFacts& facts) {
    return std::string(kStateWords[facts.state]) + "|" + facts.speed + "|" + facts.duplex + "|" +
           facts.mac + "|" + (facts.hadLink ? "yes" : "no");
}

LinkFacts Unpacked(const std::string& text) {
    std::vector<std::string> parts(5);
    size_t part = 0;
    for (const char c : text) {
        if (c != '|') {
            parts[part] += c;
        } else if (++part == parts.size()) {
            break;
        }
    }
    LinkFacts facts;
    facts.state = parts[0] == "up"     ? LinkFacts::kUp
                  : parts[0] == "down" ? LinkFacts::kDown
                                       : LinkFacts::kOff;
    facts.speed = parts[1];
    facts.duplex = parts[2];
    facts.mac = parts[3];
    facts.hadLink = parts[4] == "yes";
    return facts;
}

std::string DurationText(Links::Clock::duration duration) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
    const auto seconds = ms / 1000;
    char text[64];
    if (seconds < 60) {
        std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(ms) / 1000);
    } else if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%d min %d s", static_cast<int>(seconds / 60),
                      static_cast<int>(seconds % 60));
    } else {
        std::snprintf(text, sizeof text, "%lld h %d min", static_cast<long long>(seconds / 3600),
                      static_cast<int>(seconds / 60 % 60));
    }
    return text;
}

bool Matches(const std::string& pattern, const std::string& name) {
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

// The last pattern that matches decides.
bool IsAmong(const std::vector<std::string>& patterns, const std::string& name) {
    bool isAmong = false;
    for (const std::string& pattern : patterns) {
        const bool isExcluded = pattern[0] == '!';
        if (Matches(pattern.substr(isExcluded ? 1 : 0), name)) isAmong = !isExcluded;
    }
    return isAmong;
}

bool IsSameAddress(const KemdNetworkAddress& one, const KemdNetworkAddress& other) {
    return one.family == other.family && one.prefix == other.prefix &&
           std::equal(std::begin(one.address), std::end(one.address), other.address);
}

}  // namespace

bool Links::IsWatched(const std::string& name) const {
    return IsAmong(m_settings.interfaces, name);
}

void Links::Begin(const NetworkView& view, const KeptTexts* kept, Time now) {
    m_links.clear();
    std::set<std::string> names;
    for (const InterfaceView& interface : view.Interfaces()) {
        if (IsLoopback(interface)) continue;
        Link& link = m_links[interface.Number(KEMD_NET_INDEX).value_or(0)];
        link.name = NameOf(interface);
        link.facts = FactsOf(interface);
        link.since = now;
        link.carrierChanges = interface.Number(KEMD_NET_CARRIER_CHANGES).value_or(0);
        link.tracedSpeed = link.facts.speed;
        link.tracedDuplex = link.facts.duplex;
        names.insert(link.name);
        if (kept == nullptr) continue;
        if (IsWatched(link.name)) Compare(link, *kept);
        const auto old = kept->find(link.name);
        if (old == kept->end()) continue;
        const LinkFacts before = Unpacked(old->second);
        link.facts.hadLink = link.facts.hadLink || before.hadLink;
        // A link that comes later is compared with the last one.
        if (link.tracedSpeed.empty()) link.tracedSpeed = before.speed;
        if (link.tracedDuplex.empty()) link.tracedDuplex = before.duplex;
    }
    if (kept == nullptr) return;
    for (const auto& [name, text] : *kept) {
        if (names.contains(name) || !IsWatched(name)) continue;
        KemdMessage(kTag, "%s: absent since the last run", Shown(name).c_str());
    }
}

void Links::Compare(const Link& link, const KeptTexts& kept) const {
    const std::string name = Shown(link.name);
    const auto found = kept.find(link.name);
    if (found == kept.end()) {
        return KemdMessage(kTag, "%s: new since the last run", name.c_str());
    }
    const LinkFacts before = Unpacked(found->second);
    const auto compare = [&](const char* what, const std::string& was, const std::string& is) {
        if (was == is || was.empty() || is.empty()) return;
        KemdMessage(kTag, "%s: %s %s since the last run (was %s)", name.c_str(), what, is.c_str(),
                    was.c_str());
    };
    compare("state", kStateWords[before.state], kStateWords[link.facts.state]);
    compare("speed", before.speed, link.facts.speed);
    compare("duplex", before.duplex, link.facts.duplex);
    compare("MAC", before.mac, link.facts.mac);
}

void Links::OnChange(const KemdNetworkChange& change, Time now) {
    const InterfaceView before = change.before;
    const InterfaceView after = change.after;
    const InterfaceView interface = after ? after : before;
    if (!interface || IsLoopback(interface) || (change.what & KEMD_NETWORK_ROUTE) != 0) return;
    const uint64_t index = interface.Number(KEMD_NET_INDEX).value_or(0);
    const std::string name = NameOf(interface);
    const bool isWatched = IsWatched(name);
    if (!after) {
        if (isWatched) KemdMessage(kTag, "%s: removed", Shown(name).c_str());
        m_links.erase(index);
        return;
    }
    Link& link = m_links[index];
    if (!before) {
        link.since = now;
        link.carrierChanges = after.Number(KEMD_NET_CARRIER_CHANGES).value_or(0);
        if (isWatched) KemdTrace(kTag, 1, "%s: added", Shown(name).c_str());
    } else if (link.name != name && isWatched) {
        KemdTrace(kTag, 1, "%s: renamed, was %s", Shown(name).c_str(), Shown(link.name).c_str());
    }
    link.name = name;
    Update(link, after, now);
    const bool haveAddressesChanged =
        (change.what & (KEMD_NETWORK_ADDED | KEMD_NETWORK_ADDRESS)) != 0;
    if (isWatched && haveAddressesChanged) TraceAddresses(Shown(name), before, after);
}

void Links::Update(Link& link, InterfaceView after, Time now) {
    LinkFacts facts = FactsOf(after);
    const LinkFacts old = link.facts;
    facts.hadLink = facts.hadLink || old.hadLink;
    if (facts.state != LinkFacts::kUp) {
        facts.speed = old.speed;
        facts.duplex = old.duplex;
    }
    link.facts = facts;
    // The kernel counts what comes and goes faster than it reports.
    const bool isOther = facts.state != old.state;
    const uint64_t count = after.Number(KEMD_NET_CARRIER_CHANGES).value_or(0);
    const uint64_t counted = count > link.carrierChanges ? count - link.carrierChanges : 0;
    const uint64_t changes = std::max<uint64_t>(counted, isOther ? 1 : 0);
    link.carrierChanges = count;
    const bool isSwitched = facts.state == LinkFacts::kOff || old.state == LinkFacts::kOff;
    const Clock::duration lasted = now - link.since;
    const char* const atLeast = link.isSinceExact ? "" : "at least ";
    if (isOther) {
        link.since = now;
        link.isSinceExact = true;
    }
    if (!IsWatched(link.name)) return;
    const std::string name = Shown(link.name);
    if (isOther && isSwitched) {
        const bool isOff = facts.state == LinkFacts::kOff;
        KemdTrace(kTag, 1, "%s: switched %s", name.c_str(),
                  isOff                           ? "off"
                  : facts.state == LinkFacts::kUp ? "on, with a link"
                                                  : "on");
    }
    if (isSwitched || changes == 0) return TraceSpeed(link);
    link.changes += changes;
    if (CountFlaps(link, changes, now)) return;
    if (!isOther) {
        KemdMessage(kTag, "%s: %s for a moment", name.c_str(),
                    facts.state == LinkFacts::kUp ? "link lost" : "link there");
    } else if (facts.state == LinkFacts::kUp) {
        KemdMessage(kTag, "%s: link is back after %s%s", name.c_str(), atLeast,
                    DurationText(lasted).c_str());
    } else {
        KemdMessage(kTag, "%s: link lost after %s%s", name.c_str(), atLeast,
                    DurationText(lasted).c_str());
    }
    TraceSpeed(link);
}

bool Links::CountFlaps(Link& link, uint64_t changes, Time now) {
    const auto span = std::chrono::milliseconds(m_settings.flapMs);
    link.recent.emplace_back(now, changes);
    uint64_t sum = 0;
    while (link.recent.front().first + span < now) link.recent.pop_front();
    for (const auto& [time, number] : link.recent) sum += number;
    if (link.flapsSince) {
        link.flaps += changes;
        // Only the last change counts from here on.
        link.recent.erase(link.recent.begin(), link.recent.end() - 1);
        return true;
    }
    if (sum < static_cast<uint64_t>(m_settings.flapChanges)) return false;
    link.flapsSince = now;
    link.flaps = sum;
    KemdMessage(kTag,
                "%s: flapping, %llu link changes within %s; they are summarised when it has been "
                "stable for that long",
                Shown(link.name).c_str(), static_cast<unsigned long long>(sum),
                DurationText(span).c_str());
    return true;
}

void Links::TraceSpeed(Link& link) const {
    if (link.facts.state != LinkFacts::kUp || link.flapsSince) return;
    const auto trace = [&](const char* what, std::string& was, const std::string& is) {
        if (is.empty() || was == is) return;
        if (!was.empty()) {
            KemdTrace(kTag, 1, "%s: %s %s (was %s)", Shown(link.name).c_str(), what, is.c_str(),
                      was.c_str());
        }
        was = is;
    };
    trace("speed", link.tracedSpeed, link.facts.speed);
    trace("duplex", link.tracedDuplex, link.facts.duplex);
}

void Links::TraceAddresses(const std::string& name, InterfaceView before, InterfaceView after) {
    using Addresses = std::vector<KemdNetworkAddress>;
    const Addresses old = before ? before.Addresses() : Addresses();
    const Addresses now = after.Addresses();
    // Of thousands few are different: what both begin and end with is not looked at again.
    const auto [oldFirst, nowFirst] =
        std::mismatch(old.begin(), old.end(), now.begin(), now.end(), IsSameAddress);
    const auto [oldLast, nowLast] =
        std::mismatch(old.rbegin(), std::make_reverse_iterator(oldFirst), now.rbegin(),
                      std::make_reverse_iterator(nowFirst), IsSameAddress);
    const auto texts = [](auto first, auto last) {
        std::set<std::string> all;
        for (; first != last; ++first) all.insert(AddressText(*first));
        return all;
    };
    const std::set<std::string> gone = texts(oldFirst, oldLast.base());
    const std::set<std::string> fresh = texts(nowFirst, nowLast.base());
    const auto trace = [&](const auto& these, const auto& others, const char* what) {
        for (const std::string& address : these) {
            if (others.contains(address)) continue;
            KemdTrace(kTag, 1, "%s: address %s %s", name.c_str(), address.c_str(), what);
        }
    };
    trace(gone, fresh, "removed");
    trace(fresh, gone, "added");
}

std::optional<Links::Time> Links::Tick(Time now) {
    std::optional<Time> next;
    for (auto& [index, link] : m_links) {
        if (!link.flapsSince) continue;
        const Time end = link.recent.back().first + std::chrono::milliseconds(m_settings.flapMs);
        if (end > now) {
            next = next ? std::min(*next, end) : end;
            continue;
        }
        KemdMessage(kTag, "%s: stable again, %s, after %llu link changes in %s",
                    Shown(link.name).c_str(),
                    link.facts.state == LinkFacts::kUp     ? "with a link"
                    : link.facts.state == LinkFacts::kDown ? "without a link"
                                                           : "switched off",
                    static_cast<unsigned long long>(link.flaps),
                    DurationText(link.recent.back().first - *link.flapsSince).c_str());
        link.flapsSince.reset();
        link.recent.clear();
        TraceSpeed(link);
    }
    return next;
}

KeptTexts Links::Texts() const {
    KeptTexts texts;
    for (const auto& [index, link] : m_links) {
        if (IsWatched(link.name)) texts[link.name] = Packed(link.facts);
    }
    return texts;
}

std::string Links::Problems() const {
    std::string missing;
    std::string flapping;
    for (const auto& [index, link] : m_links) {
        const auto add = [&name = link.name](std::string& list) {
            list += (list.empty() ? "" : ", ") + Shown(name);
        };
        if (!IsWatched(link.name)) continue;
        const bool isExpected = link.facts.hadLink || IsAmong(m_settings.expected, link.name);
        if (link.facts.state == LinkFacts::kDown && isExpected) add(missing);
        if (link.flapsSince) add(flapping);
    }
    if (!missing.empty()) missing = "no link: " + missing;
    if (!flapping.empty()) flapping = "flapping: " + flapping;
    return missing + (missing.empty() || flapping.empty() ? "" : "; ") + flapping;
}

std::string Links::List(Time now) const {
    std::string text;
    for (const auto& [index, link] : m_links) {
        if (!IsWatched(link.name)) continue;
        text += Shown(link.name) + " " + kStateWords[link.facts.state] + " for " +
                (link.isSinceExact ? "" : "at least ") + DurationText(now - link.since) + ", " +
                std::to_string(link.changes) + " link change" + (link.changes == 1 ? "" : "s") +
                (link.flapsSince ? ", flapping" : "") + "\n";
    }
    return text;
}

bool Links::Forget(const std::string& name) {
    for (auto& [index, link] : m_links) {
        if (link.name != name) continue;
        link.facts.hadLink = link.facts.state == LinkFacts::kUp;
        return true;
    }
    return false;
}
