#include "network/watch.h"

#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include "base/answer.h"
#include "kemd/services.h"
#include "network/attributes.h"
#include "network/difference.h"
#include "network/ethtool_message.h"
#include "network/messages.h"
#include "network/name_space.h"

namespace {

constexpr int kSettleAttempts = 4;
constexpr int kMostAtOnce = 256;
constexpr int kReceiveBytes = 4 << 20;  // some thousand messages

int64_t Milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000) + now.tv_nsec / 1000000;
}

int Add(int poll, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : errno;
}

}  // namespace

int KemdNetworkWatch::OpenSockets() {
    int error = m_events.Open(NETLINK_ROUTE);
    const auto join = [&](uint32_t part, uint32_t group) {
        if (error == 0 && (m_parts & part) == part) error = m_events.Join(group);
    };
    join(0, RTNLGRP_LINK);
    if ((m_parts & (KEMD_NETWORK_ADDRESSES | KEMD_NETWORK_ROUTES)) != 0) {
        join(0, RTNLGRP_IPV4_IFADDR);
    }
    join(KEMD_NETWORK_ADDRESSES, RTNLGRP_IPV6_IFADDR);
    join(KEMD_NETWORK_ROUTES, RTNLGRP_IPV4_ROUTE);
    join(KEMD_NETWORK_ROUTES, RTNLGRP_IPV6_ROUTE);
    if (error != 0) return error;
    // Routes go with their next hop unreported. Before Linux 5.3 there are no such objects.
    if ((m_parts & KEMD_NETWORK_ROUTES) != 0) (void)m_events.Join(RTNLGRP_NEXTHOP);
    // The first needs rights, the second is limited by the administrator.
    const int fd = m_events.Descriptor();
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof kReceiveBytes) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
    }
    const uint32_t group = m_network.Hardware().MonitorGroup();
    if ((m_parts & KEMD_NETWORK_LINK_SPEED) == 0 || group == 0) return 0;
    error = m_monitor.Open(NETLINK_GENERIC);
    return error != 0 ? error : m_monitor.Join(group);
}

int KemdNetworkWatch::Open(int nameSpace) {
    int error = m_network.Open(nameSpace);
    if (error == 0) error = RunInNameSpace(nameSpace, [this] { return OpenSockets(); });
    if (error != 0) return error;
    m_stop.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_stop.IsOpen()) return errno;
    m_poll.Reset(epoll_create1(EPOLL_CLOEXEC));
    if (!m_poll.IsOpen()) return errno;
    error = Add(m_poll.Get(), m_stop.Get());
    if (error == 0) error = Add(m_poll.Get(), m_events.Descriptor());
    if (error == 0 && m_monitor.Descriptor() >= 0)
        error = Add(m_poll.Get(), m_monitor.Descriptor());
    return error != 0 ? error : TakeSettled(m_state);
}

int KemdNetworkWatch::TakeSettled(KemdNetworkSnapshot& snapshot) {
    for (int attempt = 1;; ++attempt) {
        std::string_view bytes;
        int error = 0;
        do error = m_events.Receive(bytes, MSG_DONTWAIT);
        while (error == 0 || error == ENOBUFS);
        if (error != EAGAIN) return error;
        error = m_network.Take(m_parts, snapshot);
        if (error != 0 || attempt == kSettleAttempts) return error;
        if (m_events.Receive(bytes, MSG_DONTWAIT | MSG_PEEK) == EAGAIN) return 0;
    }
}

int KemdNetworkWatch::Stop() const {
    const uint64_t one = 1;
    return write(m_stop.Get(), &one, sizeof one) == sizeof one || errno == EAGAIN ? 0 : errno;
}

int KemdNetworkWatch::Wait(uint32_t timeoutMs) {
    const bool isForever = timeoutMs == KEMD_WAIT_FOREVER;
    const int64_t end = isForever ? 0 : Milliseconds() + timeoutMs;
    m_wasDelivered = false;
    // What an earlier call could not finish.
    int error = m_hasMissed ? Resynchronise() : 0;
    if (error == 0 && m_areRoutesOld) error = ReadRoutes();
    if (error != 0) return error;
    while (!m_wasDelivered) {
        const int64_t left = isForever ? -1 : std::max<int64_t>(end - Milliseconds(), 0);
        epoll_event ready[3];
        const int count =
            epoll_wait(m_poll.Get(), ready, 3, static_cast<int>(std::min<int64_t>(left, INT_MAX)));
        error = count < 0 ? errno : 0;
        if (error == EINTR) continue;
        if (error != 0) return error;
        if (count == 0 && left < INT_MAX) return ETIMEDOUT;
        for (int i = 0; i < count && error == 0; ++i) {
            if (ready[i].data.fd == m_stop.Get()) return ECANCELED;
            error = ready[i].data.fd == m_events.Descriptor() ? ReadEvents() : ReadMonitor();
        }
        if (error != 0) return error;
    }
    return 0;
}

int KemdNetworkWatch::ReadEvents() {
    std::string_view bytes;
    int error = 0;
    // Not without end, so that a flood of messages cannot keep Stop waiting.
    for (int i = 0; i < kMostAtOnce && error == 0; ++i) {
        error = m_events.Receive(bytes, MSG_DONTWAIT);
        if (error != 0) break;
        // Until it is applied: memory may run out.
        m_hasMissed = true;
        ForEachMessage(bytes, [this](const NetlinkMessage& message) {
            OnMessage(message);
            return true;
        });
        m_hasMissed = false;
    }
    if (error == ENOBUFS) return Resynchronise();
    if (error != 0 && error != EAGAIN) return error;
    return m_areRoutesOld ? ReadRoutes() : 0;
}

void KemdNetworkWatch::OnMessage(const NetlinkMessage& message) {
    switch (message.header.nlmsg_type) {
        case RTM_NEWLINK:
            return OnLink(message.payload);
        case RTM_DELLINK:
            return OnLinkGone(message.payload);
        case RTM_NEWADDR:
        case RTM_DELADDR:
            return OnAddress(message.payload, message.header.nlmsg_type == RTM_NEWADDR);
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
            m_areRoutesOld = m_areRoutesOld || IsDefaultRoute(message.payload);
            return;
        case RTM_NEWNEXTHOP:
        case RTM_DELNEXTHOP:
            m_areRoutesOld = true;
            return;
        default:
            return;
    }
}

void KemdNetworkWatch::OnLink(std::string_view payload) {
    const auto header = HeaderOf<ifinfomsg>(payload);
    // A bridge reports its ports with messages of its own family, which say little.
    if (!header || header->ifi_family != AF_UNSPEC) return;
    const Interface after = ReadLink(payload, m_state.facts);
    // Without a name it is an event of a wireless driver.
    if (after == nullptr || !after->Has(KEMD_NET_NAME)) return;
    const Interface before = m_state.Share(after->Index());
    if (before != nullptr) {
        after->KeepOthersOf(*before);
        after->functions = before->functions;
    }
    constexpr uint32_t kLinkChanges = KEMD_NETWORK_ADDED | KEMD_NETWORK_UP | KEMD_NETWORK_CARRIER;
    // A VRF takes an interface without its routes.
    constexpr uint32_t kRouteChanges = kLinkChanges | KEMD_NETWORK_MASTER;
    const uint32_t what = Difference(before.get(), after.get());
    if ((what & kLinkChanges) != 0) {
        const uint32_t parts = before == nullptr ? m_parts : m_parts & kHardwareParts;
        m_network.Hardware().ReadOne(*after, parts);
    }
    // The kernel does not report routes that go with their interface.
    if ((what & kRouteChanges) != 0) m_areRoutesOld = (m_parts & KEMD_NETWORK_ROUTES) != 0;
    Replace(before, after);
}

void KemdNetworkWatch::OnLinkGone(std::string_view payload) {
    const auto header = HeaderOf<ifinfomsg>(payload);
    if (!header || header->ifi_family != AF_UNSPEC) return;
    const Interface before = m_state.Share(static_cast<uint32_t>(header->ifi_index));
    if (before == nullptr) return;
    m_areRoutesOld = (m_parts & KEMD_NETWORK_ROUTES) != 0;
    Replace(before, nullptr);
}

void KemdNetworkWatch::OnAddress(std::string_view payload, bool isThere) {
    const auto message = ReadAddress(payload);
    if (!message) return;
    // With the last IPv4 address of an interface its routes go, unreported.
    if (!isThere && (m_parts & KEMD_NETWORK_ROUTES) != 0) m_areRoutesOld = true;
    if ((m_parts & KEMD_NETWORK_ADDRESSES) == 0) return;
    const Interface before = m_state.Share(message->interface);
    if (before == nullptr) return;
    const auto after = std::make_shared<KemdNetworkInterface>(*before);
    auto& addresses = after->addresses;
    const auto place = std::find_if(addresses.begin(), addresses.end(), [&](const auto& address) {
        return IsSameAddress(address, message->address);
    });
    if (isThere && place != addresses.end()) *place = message->address;
    if (isThere && place == addresses.end()) addresses.push_back(message->address);
    if (!isThere && place != addresses.end()) addresses.erase(place);
    Replace(before, after);
}

int KemdNetworkWatch::ReadMonitor() {
    for (;;) {
        std::string_view bytes;
        const int error = m_monitor.Receive(bytes, MSG_DONTWAIT);
        if (error == ENOBUFS) return Resynchronise();
        if (error != 0) return error == EAGAIN ? 0 : error;
        // Until it is applied: memory may run out.
        m_hasMissed = true;
        ForEachMessage(bytes, [this](const NetlinkMessage& message) {
            const auto header = HeaderOf<genlmsghdr>(message.payload);
            if (header && header->cmd == ETHTOOL_MSG_LINKMODES_NTF) OnSpeed(message.payload);
            return true;
        });
        m_hasMissed = false;
    }
}

void KemdNetworkWatch::OnSpeed(std::string_view payload) {
    const Interface before = m_state.Share(EthtoolIndex(payload));
    if (before == nullptr) return;
    const auto after = std::make_shared<KemdNetworkInterface>(*before);
    // Read again, because a notification has its sets of bits in another form.
    m_network.Hardware().ReadOne(*after, m_parts & kHardwareParts);
    Replace(before, after);
}

void KemdNetworkWatch::Replace(const Interface& before, const Interface& after) {
    if (after != nullptr) {
        m_state.Put(after);
    } else {
        m_state.Remove(before->Index());
    }
    KemdNetworkChange change{};
    change.what = Difference(before.get(), after.get());
    change.before = before.get();
    change.after = after.get();
    if (change.what != 0) Deliver(change);
}

void KemdNetworkWatch::Deliver(const KemdNetworkChange& change) {
    KemdNetworkChange whole = change;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    whole.size = sizeof whole;
    whole.time = now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
    m_wasDelivered = true;
    m_onChange(m_user, &whole);
}

int KemdNetworkWatch::ReadRoutes() {
    std::vector<KemdNetworkRoute> before;
    const int error = m_network.ReadRoutes(before);
    if (error != 0) return error;
    m_areRoutesOld = false;
    before.swap(m_state.routes);
    DeliverRoutes(before, m_state.routes);
    return 0;
}

void KemdNetworkWatch::DeliverRoutes(const std::vector<KemdNetworkRoute>& before,
                                     const std::vector<KemdNetworkRoute>& after) {
    for (const RouteDifference& difference : RouteDifferences(before, after)) {
        KemdNetworkChange change{};
        change.what = KEMD_NETWORK_ROUTE;
        change.routeBefore = difference.before;
        change.routeAfter = difference.after;
        if (difference.before != nullptr)
            change.before = m_state.Find(difference.before->interface);
        if (difference.after != nullptr) change.after = m_state.Find(difference.after->interface);
        Deliver(change);
    }
}

int KemdNetworkWatch::Resynchronise() {
    m_hasMissed = true;
    const KemdNetworkSnapshot before = m_state;
    KemdNetworkSnapshot now;
    const int error = TakeSettled(now);
    if (error != 0) return error;
    m_areRoutesOld = false;
    m_state.facts = now.facts;
    m_state.notes = now.notes;
    for (const Interface& interface : before.interfaces) {
        if (now.Find(interface->Index()) == nullptr) Replace(interface, nullptr);
    }
    for (const Interface& interface : now.interfaces) {
        Replace(before.Share(interface->Index()), interface);
    }
    m_state.routes = now.routes;
    m_hasMissed = false;
    DeliverRoutes(before.routes, m_state.routes);
    return 0;
}

int KemdNetworkWatchOpen(KemdNetworkWatch** watch, int nameSpace, uint32_t parts,
                         KemdNetworkOnChange onChange, void* user) {
    if (watch == nullptr || onChange == nullptr) return EINVAL;
    *watch = nullptr;
    return Guarded([&] {
        auto opened = std::make_unique<KemdNetworkWatch>(parts, onChange, user);
        const int error = opened->Open(nameSpace);
        if (error == 0) *watch = opened.release();
        return error;
    });
}

int KemdNetworkWatchWait(KemdNetworkWatch* watch, uint32_t timeoutMs) {
    if (watch == nullptr) return EINVAL;
    return Guarded([&] { return watch->Wait(timeoutMs); });
}

int KemdNetworkWatchDescriptor(const KemdNetworkWatch* watch) {
    return watch != nullptr ? watch->Descriptor() : -1;
}

int KemdNetworkWatchStop(KemdNetworkWatch* watch) {
    return watch != nullptr ? watch->Stop() : EINVAL;
}

int KemdNetworkWatchSnapshot(const KemdNetworkWatch* watch, KemdNetworkSnapshot** snapshot) {
    if (watch == nullptr || snapshot == nullptr) return EINVAL;
    return Guarded([&] {
        *snapshot = new KemdNetworkSnapshot(watch->State());
        return 0;
    });
}

void KemdNetworkWatchClose(KemdNetworkWatch* watch) {
    delete watch;
}
