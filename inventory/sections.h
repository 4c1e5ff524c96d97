// The sections of the inventory by name, in the order in which they are shown.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "kemd/inventory.h"

struct InventorySection {
    uint32_t section;
    const char* name;
};

inline constexpr std::array<InventorySection, 8> kInventorySections = {
    {{KEMD_INVENTORY_SYSTEM, "system"},
     {KEMD_INVENTORY_MEMORY, "memory"},
     {KEMD_INVENTORY_SLOTS, "slots"},
     {KEMD_INVENTORY_PCI, "pci"},
     {KEMD_INVENTORY_USB, "usb"},
     {KEMD_INVENTORY_DRIVES, "drives"},
     {KEMD_INVENTORY_NETWORK, "network"},
     {KEMD_INVENTORY_VOLUMES, "volumes"}}};

// 0: there is none of that name.
inline uint32_t SectionByName(std::string_view name) {
    for (const InventorySection& each : kInventorySections) {
        if (each.name == name) return each.section;
    }
    return 0;
}
