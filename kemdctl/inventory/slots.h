// The rows of the slot map, with what the SMBIOS tables add to them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inventory/smbios.h"
#include "kemd/pci_slot_map.h"

struct SlotRow {
    PciSlotData data;
    bool isOnboard = false;  // no slot; from SMBIOS, its number is the device's instance
    std::string label;       // as printed beside the slot, or the device's name
};
using SlotRows = std::vector<SlotRow>;

SlotRows MakeSlotRows(const CPciSlotMap::Slots& slots, PciSlotSource source, const CSMBios& smbios);

// The device's own row; otherwise the first one that matches by its bus alone, as that of a serial
// slot does; null when there is neither.
const SlotRow* FindSlotRow(const SlotRows& rows, uint8_t bus, uint8_t device);

// Why tables that were read give no rows.
std::string WhyNoSlots(const CSMBios& smbios);
