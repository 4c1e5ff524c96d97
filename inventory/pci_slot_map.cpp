#include "kemd/pci_slot_map.h"

#include <array>
#include <cstdio>
#include <exception>
#include <utility>

#include "base/cancel_guard.h"
#include "trace/debug.h"

namespace {

using Slots = CPciSlotMap::Slots;

// DMTF DSP0134, "System Slots (Type 9)", "Slot Type": the codes of slots with a bus of their own.
struct SerialRange {
    uint8_t first;
    uint8_t last;
    const char* text;
};
constexpr SerialRange kSerialRanges[] = {
    {0x1F, 0x20,
     "\nPciSlotData::IsSerialBus(): Slot %d is a PCI Express bus (SMBios type = %x) --> SERIAL."},
    {0xA5, 0xB6,
     "\nPciSlotData::IsSerialBus(): Slot %d is a PCI Express bus (SMBios type = %x) --> SERIAL."},
    {0x21, 0x23,
     "\nPciSlotData::IsSerialBus(): Slot %d is a PCI Express Mini bus (SMBios type = %x) --> "
     "SERIAL."},
    {0x18, 0x1E,
     "\nPciSlotData::IsSerialBus(): Slot %d is a MXM bus (SMBios type = %x) --> SERIAL."},
    {0x14, 0x17,
     "\nPciSlotData::IsSerialBus(): Slot %d is a M.2 bus (SMBios type = %x) --> SERIAL."},
};

struct SlotMap {
    Slots slots;
    PciSlotSource source = PciSlotSource::kNone;
};

SlotMap ChooseMap() {
    Slots irq = CPciSlotMap::GetSlotMappingFromIrqRoutingTable();
    Slots smbios = CPciSlotMap::GetSlotMappingFromSMBIOS();
    if (!irq.empty()) {
        TRACE(2, "\nCPciSlotMap::GetSlotMapping(): Using slot data from IRQ.\n");
        if (!smbios.empty()) CPciSlotMap::UpdateSlotTypeFromSMBios(irq, smbios);
        return {std::move(irq), PciSlotSource::kIrqRoutingTable};
    }
    if (!smbios.empty()) {
        TRACE(2, "\nCPciSlotMap::GetSlotMapping(): Using slot data from SMBios.\n");
        return {std::move(smbios), PciSlotSource::kSmbios};
    }
    TRACE(1, "\nCPciSlotMap::GetSlotMapping(): ERROR # No slot data found on this machine!\n");
    return {};
}

// Never destroyed: threads of modules may use it until the process is gone.
const SlotMap& TheMap() {
    const CancelGuard guard;
    static const SlotMap& map = *new SlotMap(ChooseMap());
    return map;
}

void TraceNotFound(uint8_t bus, uint8_t device) {
    TRACE(3, "slot number for %02x:%02x not found, assuming SlotNo=0\n", bus, device);
}

}  // namespace

bool PciSlotData::IsSerialBus() const {
    for (const SerialRange& range : kSerialRanges) {
        if (type < range.first || type > range.last) continue;
        TRACE(5, range.text, slot, type);
        return true;
    }
    TRACE(5,
          "\nPciSlotData::IsSerialBus(): Slot %d is NOT a serial bus (SMBios type = %x) --> "
          "PARALLEL",
          slot, type);
    return false;
}

bool PciSlotData::Matches(uint8_t wantedBus, uint8_t wantedDevice, bool isSerial) const {
    return bus == wantedBus && (isSerial || device == wantedDevice);
}

std::string PciSlotData::Description() const {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "bus %02x, device %02x, slot %02x, type %02x", bus,
                  device, slot, type);
    return text.data();
}

void CPciSlotMap::UpdateSlotTypeFromSMBios(Slots& irqSlots, const Slots& smbiosSlots) try {
    static constexpr const char* kUpdated =
        "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Updated slot type:";
    static constexpr const char* kUnmatched =
        "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Could not match with any SMBios entry:";
    TRACE(3,
          "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Updating IRQ slot type using data from "
          "SMBios.\n");
    for (PciSlotData& slot : irqSlots) {
        const PciSlotData* match = Find(smbiosSlots, slot.bus, slot.device);
        if (match != nullptr) slot.type = match->type;
        TRACE(5, match != nullptr ? kUpdated : kUnmatched);
        TRACE(5, "\n\t%s", slot.Description().c_str());
    }
    TRACE(3, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Done.\n");
} catch (const std::exception&) {
    // No memory for a trace text: the remaining types stay as they are.
}

const PciSlotData* CPciSlotMap::Find(const Slots& slots, uint8_t bus, uint8_t device) {
    for (const PciSlotData& slot : slots) {
        if (slot.Matches(bus, device, slot.IsSerialBus())) return &slot;
    }
    return nullptr;
}

const CPciSlotMap::Slots& CPciSlotMap::GetSlotMapping() try {
    return TheMap().slots;
} catch (const std::exception&) {
    static const Slots none;
    return none;
}

PciSlotSource CPciSlotMap::Source() try { return TheMap().source; } catch (const std::exception&) {
    return PciSlotSource::kNone;
}

uint8_t CPciSlotMap::GetPciSlotNumber(uint8_t bus, uint8_t device) try {
    const Slots& slots = GetSlotMapping();
    if (slots.empty()) {
        TRACE(1, "\nCPciSlotMap::GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping.");
        TraceNotFound(bus, device);
        return 0;
    }
    TRACE(5,
          "\nCPciSlotMap::GetPciSlotNumber() : Searching PCI slot table for bus '%x' device '%x'",
          bus, device);
    for (const PciSlotData& slot : slots) {
        TRACE(5, "\nCPciSlotMap::GetPciSlotNumber() : Check %s", slot.Description().c_str());
        if (!slot.Matches(bus, device, slot.IsSerialBus())) continue;
        TRACE(5, "\nCPciSlotMap::GetPciSlotNumber() : Found PCI Slot for this device - %d",
              slot.slot);
        return slot.slot;
    }
    TraceNotFound(bus, device);
    return 0;
} catch (const std::exception&) {
    return 0;  // no memory for a trace text
}
