// What ethtool knows of interfaces: by its generic netlink family, and by its ioctl where that has
// no answer. One thread at a time. Throws std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "network/interface.h"
#include "network/netlink_socket.h"
#include "network/snapshot.h"

struct EthtoolQuery;

class Ethtool {
  public:
    // What a part of a snapshot could not have.
    using OnError = std::function<void(uint32_t part, const char* what, int error)>;

    // In the caller's name space. Succeeds also on a kernel without the netlink family.
    [[nodiscard]] int Open();
    // The kernel's names of what is in `parts`, each set read once; empty without the netlink
    // family.
    [[nodiscard]] const std::shared_ptr<const NameSets>& Names(uint32_t parts);

    // `parts` of all interfaces at once.
    void ReadAll(uint32_t parts, const KemdNetworkSnapshot& snapshot, const OnError& onError);
    // Driver and bus of all, and without the netlink family their links and settings.
    void ReadAllByIoctl(uint32_t parts, const KemdNetworkSnapshot& snapshot) const;
    // The same of one interface.
    void ReadByIoctl(KemdNetworkInterface& interface, uint32_t parts) const;
    // `parts` of one interface, and what `ReadByIoctl` reads.
    void ReadOne(KemdNetworkInterface& interface, uint32_t parts);
    // What is plugged in.
    void ReadModule(KemdNetworkInterface& interface);

    // For other families of generic netlink.
    [[nodiscard]] NetlinkSocket& Socket() { return m_socket; }
    // The number of the family's multicast group; 0 without one.
    [[nodiscard]] uint32_t MonitorGroup() const { return m_monitorGroup; }

  private:
    [[nodiscard]] int FindFamily();
    // Where most interfaces have the same answer; false when a dump is better.
    bool ReadByKind(const EthtoolQuery& query, const KemdNetworkSnapshot& snapshot);
    void AskOne(KemdNetworkInterface& interface, const EthtoolQuery& query);
    void ReadNames(uint32_t set, NameSets& names);
    [[nodiscard]] NetlinkRequest Request(const char* what, uint8_t command, uint16_t flags,
                                         uint32_t index) const;
    [[nodiscard]] int ReadEeprom(uint32_t index, uint8_t page, uint32_t offset, uint32_t length,
                                 std::string& bytes);

    NetlinkSocket m_socket;
    UniqueFd m_ioctl;
    uint16_t m_family = 0;  // 0: the kernel has none
    uint32_t m_monitorGroup = 0;
    std::shared_ptr<const NameSets> m_names = std::make_shared<NameSets>();
};
