// The links of the interfaces: what happened to them, and what is traced about it. One thread at a
// time. Throws std::bad_alloc alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "modules/network/kept_state.h"
#include "network/view.h"

struct LinkSettings {
    std::vector<std::string> interfaces;  // patterns of those that are watched; "!": not these
    std::vector<std::string> expected;    // patterns of those that should have a link
    int64_t flapChanges = 0;              // so many changes ...
    int64_t flapMs = 0;                   // ... within this time
};

// Without flapping: an exact state of one interface.
struct LinkFacts {
    enum State { kOff, kDown, kUp };
    State state = kOff;
    std::string speed;  // of the last link, as "1000 Mbit/s"; empty: not known
    std::string duplex;
    std::string mac;
    bool hadLink = false;
};

class Links {
  public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    void Configure(LinkSettings settings) { m_settings = std::move(settings); }
    // What is there at the start, compared with what the last run kept; null: it kept nothing.
    void Begin(const NetworkView& view, const KeptTexts* kept, Time now);
    void OnChange(const KemdNetworkChange& change, Time now);
    // Summarises what no longer flaps. Returns when to call again; nothing: not before a change.
    std::optional<Time> Tick(Time now);
    // To be kept.
    [[nodiscard]] KeptTexts Texts() const;

    // Why somebody should look; empty: all is well.
    [[nodiscard]] std::string Problems() const;
    // A line for each interface.
    [[nodiscard]] std::string List(Time now) const;
    // It need not have a link any more; false when there is no such interface.
    bool Forget(const std::string& name);

  private:
    struct Link {
        std::string name;
        LinkFacts facts;
        std::string tracedSpeed;
        std::string tracedDuplex;
        Time since{};               // of the state
        bool isSinceExact = false;  // or it began earlier, before the start
        uint64_t changes = 0;
        uint64_t carrierChanges = 0;                   // as the kernel counts them
        std::deque<std::pair<Time, uint64_t>> recent;  // changes within the time for flapping
        std::optional<Time> flapsSince;
        uint64_t flaps = 0;
    };

    [[nodiscard]] bool IsWatched(const std::string& name) const;
    void Compare(const Link& link, const KeptTexts& kept) const;
    // The state of the link as the change left it.
    void Update(Link& link, InterfaceView after, Time now);
    // Whether it flaps now.
    bool CountFlaps(Link& link, uint64_t changes, Time now);
    void TraceSpeed(Link& link) const;
    static void TraceAddresses(const std::string& name, InterfaceView before, InterfaceView after);

    LinkSettings m_settings;
    std::map<uint64_t, Link> m_links;  // by index, without loopback
};
