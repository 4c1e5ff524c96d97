// The two sources of slot records.
#include "inventory/pci_slot_sources.h"

#include <exception>

#include "base/cancel_guard.h"
#include "inventory/device_bios.h"
#include "trace/debug.h"

namespace {

using Bytes = std::span<const uint8_t>;
using Slots = CPciSlotMap::Slots;

// Both tables keep the device in the upper five bits and the function in the lower three.
uint8_t DeviceOf(uint8_t deviceFunction) {
    return static_cast<uint8_t>(deviceFunction >> 3);
}

// The slot entry of the PCI IRQ routing table, by the field names of its published layout.
constexpr size_t kRoutingEntrySize = 16;
constexpr size_t kPciBusNumber = 0;
constexpr size_t kPciDeviceNumber = 1;
constexpr size_t kSlotNumber = 14;

// DMTF DSP0134, "System Slots (Type 9)".
constexpr uint8_t kSystemSlots = 9;
constexpr size_t kSlotType = 0x05;
constexpr size_t kCurrentUsage = 0x07;
constexpr size_t kSlotId = 0x09;
constexpr size_t kSlotBus = 0x0F;
constexpr size_t kSlotDeviceFunction = 0x10;
constexpr uint8_t kUsageUnavailable = 0x05;
constexpr uint8_t kNoBus = 0xFF;

// DMTF DSP0134, "Onboard Devices Extended Information (Type 41)".
constexpr uint8_t kOnboardDevices = 41;
constexpr size_t kDeviceTypeInstance = 0x06;
constexpr size_t kDeviceBus = 0x09;
constexpr size_t kDeviceDeviceFunction = 0x0A;

void AddSystemSlot(Slots& slots, Bytes structure) {
    const bool hasBus = structure.size() > kSlotDeviceFunction;
    const uint8_t bus = hasBus ? structure[kSlotBus] : kNoBus;
    if (bus == kNoBus) {
        TRACE(5,
              "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore unavailable slot with bus number "
              "0xFF...\n");
        return;
    }
    const uint8_t usage = structure[kCurrentUsage];
    TRACE(5, "\nCPciSlotMap::GetPciSlotNumber() : CurrentUsage status - %x for bus - %x.", usage,
          bus);
    if (usage == kUsageUnavailable) {
        TRACE(5,
              "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore riser-unavailable slot with "
              "Current Usage status - Unavaiable ...\n");
        return;
    }
    slots.push_back(
        {bus, DeviceOf(structure[kSlotDeviceFunction]), structure[kSlotId], structure[kSlotType]});
    TRACE(5, "\nCPciSlotMap::GetSlotMappingFromSMBIOS() : Add system slot device - %s.",
          slots.back().Description().c_str());
}

// An onboard device has no slot: its instance number is used, and the slot type is unknown.
void AddOnboardDevice(Slots& slots, Bytes structure) {
    if (structure.size() <= kDeviceDeviceFunction) {
        TRACE(5,
              "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore unavailable slot with bus number "
              "0xFF...\n");
        return;
    }
    slots.push_back({structure[kDeviceBus], DeviceOf(structure[kDeviceDeviceFunction]),
                     structure[kDeviceTypeInstance], 0});
    TRACE(5, "\nCPciSlotMap::GetSlotMappingFromSMBIOS() : Add onboard device - %s.",
          slots.back().Description().c_str());
}

// Calls `add` for every structure of the type; false when there is none.
template <typename Add>
bool ForEach(const CSMBios& smbios, uint8_t type, Add add) {
    const auto found = smbios.Structures().find(type);
    if (found == smbios.Structures().end()) return false;
    for (const size_t position : found->second) add(smbios.Formatted(position));
    return true;
}

Slots GatherFromRoutingTable() {
    const CancelGuard guard;
    CDeviceBios device;
    const std::vector<uint8_t> entries = device.GetRoutingTable();
    if (entries.empty()) {
        TRACE(1,
              "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): ERROR ## Empty IRQ Routing "
              "Table.\n");
    }
    Slots slots;
    for (size_t i = 0; i + kRoutingEntrySize <= entries.size(); i += kRoutingEntrySize) {
        const Bytes entry = Bytes(entries).subspan(i, kRoutingEntrySize);
        slots.push_back(
            {entry[kPciBusNumber], DeviceOf(entry[kPciDeviceNumber]), entry[kSlotNumber], 0});
        TRACE(5, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Add device - %s.",
              slots.back().Description().c_str());
    }
    return slots;
}

}  // namespace

Slots CPciSlotMap::GetSlotMappingFromIrqRoutingTable() try {
    TRACE(3,
          "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Attempt to get Slot Mapping from "
          "IRQ Routing Table.\n");
    Slots slots = GatherFromRoutingTable();
    if (slots.empty()) {
        TRACE(1,
              "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): ERROR ## No slot data in IRQ "
              "Routing Table!\n");
    } else {
        TRACE(3,
              "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Success! Gathered %u slots from "
              "IRQ Routing Table\n",
              static_cast<unsigned>(slots.size()));
    }
    return slots;
} catch (const std::exception&) {
    return {};
}

Slots CPciSlotMap::GetSlotMappingFromSMBIOS() {
    TRACE(3,
          "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Attempt to get Slot Mapping from SMBIOS "
          "data.\n");
    CSMBios smbios;
    if (smbios.Connect()) return GatherSmbiosSlots(smbios);
    TRACE(1, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): ERROR ## cannot connect to SMBios!\n");
    return {};
}

Slots GatherSmbiosSlots(const CSMBios& smbios) try {
    Slots slots;
    if (!ForEach(smbios, kSystemSlots, [&slots](Bytes bytes) { AddSystemSlot(slots, bytes); })) {
        TRACE(3, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): No System Slots (Type 9) entries.\n");
    }
    if (!ForEach(smbios, kOnboardDevices,
                 [&slots](Bytes bytes) { AddOnboardDevice(slots, bytes); })) {
        TRACE(3,
              "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): No Onboard Devices Extended Information "
              "(Type 41) entries.\n");
    }
    if (slots.empty()) {
        TRACE(1, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): ERROR ## No slot data in SMBios!\n");
    } else {
        TRACE(3,
              "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Success! Gathered %u slots from SMBios\n",
              static_cast<unsigned>(slots.size()));
    }
    return slots;
} catch (const std::exception&) {
    return {};
}
