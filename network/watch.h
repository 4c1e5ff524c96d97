// Changes of the interfaces of a name space. One thread waits; any may call Stop. Throws
// std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "network/network.h"

struct KemdNetworkWatch {
    KemdNetworkWatch(uint32_t parts, KemdNetworkOnChange onChange, void* user)
        : m_parts(WithTheirParts(parts)), m_onChange(onChange), m_user(user) {}

    // An errno number, as everywhere here.
    [[nodiscard]] int Open(int nameSpace);
    [[nodiscard]] int Wait(uint32_t timeoutMs);
    [[nodiscard]] int Stop() const;
    [[nodiscard]] int Descriptor() const { return m_poll.Get(); }
    [[nodiscard]] const KemdNetworkSnapshot& State() const { return m_state; }

  private:
    using Interface = std::shared_ptr<KemdNetworkInterface>;

    [[nodiscard]] int OpenSockets();
    // A snapshot during which nothing changed, so that no older message contradicts it.
    [[nodiscard]] int TakeSettled(KemdNetworkSnapshot& snapshot);
    // Reads what is there. What was lost is found by a new snapshot.
    [[nodiscard]] int ReadEvents();
    [[nodiscard]] int ReadMonitor();
    [[nodiscard]] int Resynchronise();
    void OnMessage(const NetlinkMessage& message);
    void OnLink(std::string_view payload);
    void OnLinkGone(std::string_view payload);
    void OnAddress(std::string_view payload, bool isThere);
    void OnSpeed(std::string_view payload);
    [[nodiscard]] int ReadRoutes();
    // The state changes, and then who watches is called.
    void Replace(const Interface& before, const Interface& after);
    void Deliver(const KemdNetworkChange& change);
    void DeliverRoutes(const std::vector<KemdNetworkRoute>& before,
                       const std::vector<KemdNetworkRoute>& after);

    uint32_t m_parts;
    KemdNetworkOnChange m_onChange;
    void* m_user;
    KemdNetwork m_network;
    NetlinkSocket m_events;
    NetlinkSocket m_monitor;
    UniqueFd m_stop;
    UniqueFd m_poll;
    KemdNetworkSnapshot m_state;
    bool m_hasMissed = false;  // the state does not have all changes
    bool m_areRoutesOld = false;
    bool m_wasDelivered = false;
};
