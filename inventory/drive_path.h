// Where a device of sysfs sits, by its path. Pure functions; any thread. May throw std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

// "/sys/devices/pci0000:00/0000:00:1f.2/ata3/host2/target2:0:0/2:0:0:0/block/sda".
struct DrivePath {
    std::string pci;   // "0000:00:1f.2"; empty: not below a PCI function
    std::string usb;   // "1-1.2"; empty: not below a USB device
    std::string ata;   // "ata3"
    std::string host;  // "host2"
    std::string hctl;  // "2:0:0:0"
    // What the drive's driver serves, the directory above the host or above "block": "ata3",
    // "virtio1", "mmc0:0001", "floppy.0".
    std::string unit;

    explicit DrivePath(std::string_view path);

    // The id of the PCI function or the USB device; empty when there is none.
    [[nodiscard]] std::string HardwareId() const;
    // What stays the same from one boot to the next: "0000:00:1f.2", "1-1.2", "floppy.0".
    [[nodiscard]] const std::string& Hardware() const;
};
