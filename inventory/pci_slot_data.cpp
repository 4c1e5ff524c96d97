#include <array>
#include <cstdio>

#include "kemd/pci_slot_map.h"
#include "trace/debug.h"

namespace {

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
