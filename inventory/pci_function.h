// What is known of one PCI function, before names are looked up.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kemd/pci_slot_map.h"

struct KemdInventory;

struct PciAddress {
    uint32_t segment = 0;
    uint8_t bus = 0;
    uint8_t device = 0;
    uint8_t function = 0;

    // NOLINTNEXTLINE(modernize-use-nullptr): there is no pointer
    auto operator<=>(const PciAddress&) const = default;
    // "0000:00:1f.2"; nothing for another text.
    static std::optional<PciAddress> Parse(std::string_view text);
    [[nodiscard]] std::string Text() const;
    // The id of its item.
    [[nodiscard]] std::string Id() const { return "pci:" + Text(); }
};

// The last function that a path of /sys/devices goes through: that of "1-1.2", of "eth0".
std::optional<PciAddress> PciAddressInPath(std::string_view path);

// A range of addresses, as text: "memory 64-bit prefetchable 0x4000000000 size 524288".
struct PciRegion {
    enum class Use { kBar, kRom, kVirtualFunctionBar, kWindow };
    Use use;
    unsigned number;
    std::string text;
};

struct PciFunction {
    PciAddress address;
    std::optional<PciAddress> parent;  // the bridge
    std::optional<PciAddress> physicalFunction;
    uint32_t classCode = 0;  // class, subclass, programming interface
    uint16_t vendor = 0;
    uint16_t device = 0;
    uint16_t subsystemVendor = 0;  // 0 or 0xffff: none
    uint16_t subsystem = 0;
    std::optional<uint64_t> revision;
    std::string driver;
    std::string driverModule;
    std::string modalias;
    std::string label;  // as the firmware names an on-board device
    std::string powerState;
    std::optional<uint64_t> isEnabled;
    std::optional<uint64_t> irq;
    std::optional<uint64_t> iommuGroup;
    std::optional<uint64_t> numaNode;
    std::optional<uint64_t> virtualFunctions;
    std::optional<uint64_t> mostVirtualFunctions;
    // 0: not known. Speeds in MT/s.
    unsigned linkSpeed = 0;
    unsigned linkWidth = 0;
    unsigned mostLinkSpeed = 0;
    unsigned mostLinkWidth = 0;
    std::optional<uint64_t> correctableErrors;
    std::optional<uint64_t> nonfatalErrors;
    std::optional<uint64_t> fatalErrors;
    std::vector<PciRegion> regions;

    [[nodiscard]] bool IsBridge() const { return classCode >> 8 == 0x0604; }
};

// In the order of their addresses. Of sysfs; nothing where the host has none.
std::optional<std::vector<PciFunction>> ReadPciFromSysfs(KemdInventory& inventory);
// Of /proc/bus/pci, for kernels without sysfs.
std::vector<PciFunction> ReadPciFromProc(KemdInventory& inventory);
// The parts of that which are foreign bytes: a line of /proc/bus/pci/devices, which is one of
// `functions`, and a configuration space, which may be cut anywhere.
void TakeProcLine(std::string_view line, std::vector<PciFunction>& functions);
void TakePciConfig(std::string_view config, PciFunction& function, uint8_t& secondaryBus);
// A line of the attribute "resource"; nothing for a range that is not used.
std::optional<PciRegion> ParsePciResource(std::string_view line, unsigned number);
// "8.0 GT/s PCIe" gives 8000; 0 for what says nothing.
unsigned ParsePciLinkSpeed(std::string_view text);

// By position in `functions`: the kernel modules whose aliases fit, as modules.alias says.
std::vector<std::vector<std::string>> FindPciModules(KemdInventory& inventory,
                                                     const std::vector<PciFunction>& functions);

struct PciNames {
    std::string vendor;
    std::string device;
};
// By position: from the inventory's items where it has them, otherwise looked up. Empty when there
// are none.
std::vector<PciNames> NamePciFunctions(KemdInventory& inventory,
                                       const std::vector<std::optional<PciAddress>>& addresses);
// The number of the slot whose record is of this bus and device; 0 when there is none. A device on
// board has no slot: its record has its number among its kind.
unsigned PciSlotNumber(const CPciSlotMap::Slots& slots, PciSlotSource source,
                       const PciAddress& address, bool isBelowBridge);
// The number of the slot that holds it: that of its item, otherwise what the slot map says of its
// bus and device. 0: not known.
unsigned PciSlotOf(const KemdInventory& inventory, const PciAddress& address);
