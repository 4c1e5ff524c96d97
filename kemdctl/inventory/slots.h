// The rows of the slot map with what the SMBIOS tables say about them besides.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inventory/smbios.h"
#include "kemd/pci_slot_map.h"

struct SlotRow {
    PciSlotData data;
    bool isOnboard = false;  // no slot; by SMBIOS its number is the device's instance
    std::string label;       // printed beside the slot, or the device's name; as the table has it
};
using SlotRows = std::vector<SlotRow>;

SlotRows MakeSlotRows(const CPciSlotMap::Slots& slots, PciSlotSource source, const CSMBios& smbios);

// The row of exactly this device, else the first one that stands for it by the bus alone, as that
// of a serial slot does; null when there is neither.
const SlotRow* FindSlotRow(const SlotRows& rows, uint8_t bus, uint8_t device);

// Why tables that were read give no rows.
std::string WhyNoSlots(const CSMBios& smbios);
