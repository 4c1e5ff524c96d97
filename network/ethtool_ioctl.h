// ethtool's ioctl: the driver, which netlink does not say, and on kernels without ethtool's netlink
// family the link and some settings.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "network/interface.h"

class EthtoolIoctl {
  public:
    // Fills the interface; the socket remains the caller's.
    EthtoolIoctl(int fd, KemdNetworkInterface& interface) : m_fd(fd), m_interface(interface) {}

    // Driver, version, firmware, address on the bus, NUMA node.
    void ReadDriver() const;
    // Speed, duplex, port, and whether there is a link.
    void ReadLink() const;
    // Pause, rings, channels.
    void ReadSettings() const;

  private:
    // `command` begins with its number. An errno number.
    [[nodiscard]] int Call(void* command) const;
    void ReadNumaNode() const;

    // A member of an ioctl's structure, and the one that says how much it may be: the field after
    // it.
    template <typename Command>
    struct Setting {
        uint32_t field;
        uint32_t Command::*value;
        uint32_t Command::*most;  // null: none
    };
    template <typename Command>
    using Settings = std::initializer_list<Setting<Command>>;
    template <typename Command>
    void Read(Command command, uint32_t number, const Settings<Command>& settings) const;

    int m_fd;
    KemdNetworkInterface& m_interface;
};
