#include "inventory/smbios_names.h"

#include <array>
#include <cstdio>
#include <iterator>

namespace {

struct SlotName {
    uint8_t type;
    const char* name;
};
constexpr SlotName kSlotNames[] = {
    {0x01, "other"},
    {0x02, "unknown"},
    {0x03, "ISA"},
    {0x04, "MCA"},
    {0x05, "EISA"},
    {0x06, "PCI"},
    {0x07, "PC Card"},
    {0x08, "VL-VESA"},
    {0x09, "proprietary"},
    {0x0A, "processor card"},
    {0x0B, "proprietary memory card"},
    {0x0C, "I/O riser card"},
    {0x0D, "NuBus"},
    {0x0E, "PCI 66 MHz"},
    {0x0F, "AGP"},
    {0x10, "AGP 2x"},
    {0x11, "AGP 4x"},
    {0x12, "PCI-X"},
    {0x13, "AGP 8x"},
    {0x14, "M.2 socket 1-DP"},
    {0x15, "M.2 socket 1-SD"},
    {0x16, "M.2 socket 2"},
    {0x17, "M.2 socket 3"},
    {0x18, "MXM type I"},
    {0x19, "MXM type II"},
    {0x1A, "MXM type III"},
    {0x1B, "MXM type III-HE"},
    {0x1C, "MXM type IV"},
    {0x1D, "MXM 3.0 type A"},
    {0x1E, "MXM 3.0 type B"},
    {0x1F, "PCI Express 2 U.2"},
    {0x20, "PCI Express 3 U.2"},
    {0x21, "PCI Express Mini 52-pin, keep-outs"},
    {0x22, "PCI Express Mini 52-pin"},
    {0x23, "PCI Express Mini 76-pin"},
    {0x24, "PCI Express 4 U.2"},
    {0x25, "PCI Express 5 U.2"},
    {0x26, "OCP NIC 3.0 SFF"},
    {0x27, "OCP NIC 3.0 LFF"},
    {0x28, "OCP NIC before 3.0"},
    {0x30, "CXL Flexbus 1.0"},
    {0xA0, "PC-98/C20"},
    {0xA1, "PC-98/C24"},
    {0xA2, "PC-98/E"},
    {0xA3, "PC-98 local bus"},
    {0xA4, "PC-98 card"},
    {0xC4, "PCI Express 6 and above"},
    {0xC5, "EDSFF E1"},
    {0xC6, "EDSFF E3"},
};

// Six codes for each generation: without a width, x1, x2, x4, x8 and x16.
struct ExpressRange {
    uint8_t first;
    const char* name;
};
constexpr ExpressRange kExpressRanges[] = {{0xA5, "PCI Express"},
                                           {0xAB, "PCI Express 2"},
                                           {0xB1, "PCI Express 3"},
                                           {0xB8, "PCI Express 4"},
                                           {0xBE, "PCI Express 5"}};
constexpr const char* kWidths[] = {"", " x1", " x2", " x4", " x8", " x16"};

constexpr std::array<const char*, 47> kStructureNames = {
    "BIOS",
    "system",
    "baseboard",
    "chassis",
    "processor",
    "memory controller",
    "memory module",
    "cache",
    "port connector",
    "system slots",
    "on board devices",
    "OEM strings",
    "system configuration options",
    "BIOS language",
    "group associations",
    "system event log",
    "physical memory array",
    "memory device",
    "32-bit memory error",
    "memory array mapped address",
    "memory device mapped address",
    "built-in pointing device",
    "portable battery",
    "system reset",
    "hardware security",
    "system power controls",
    "voltage probe",
    "cooling device",
    "temperature probe",
    "electrical current probe",
    "out-of-band remote access",
    "boot integrity services",
    "system boot",
    "64-bit memory error",
    "management device",
    "management device component",
    "management device threshold data",
    "memory channel",
    "IPMI device",
    "system power supply",
    "additional information",
    "onboard devices extended",
    "management controller host interface",
    "TPM device",
    "processor additional information",
    "firmware inventory",
    "string property",
};

}  // namespace

std::string SlotTypeName(uint8_t type) {
    for (const SlotName& slot : kSlotNames) {
        if (slot.type == type) return slot.name;
    }
    for (const ExpressRange& range : kExpressRanges) {
        if (type < range.first || type >= range.first + std::size(kWidths)) continue;
        return std::string(range.name) + kWidths[type - range.first];
    }
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "code %02x", type);
    return type == 0 ? "not known" : text.data();
}

const char* StructureName(uint8_t type) {
    if (type < kStructureNames.size()) return kStructureNames[type];
    if (type == 126) return "inactive";
    if (type == 127) return "end of table";
    return type >= 128 ? "OEM-specific" : "reserved";
}
