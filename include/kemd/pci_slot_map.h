// Which slot holds a PCI device, according to the firmware: from the PCI IRQ routing table, else
// from the SMBIOS tables.
//
// Any thread may call. The first call gathers the map, which is kept for the life of the process,
// even if nothing was found. Nothing throws unless stated otherwise. A thread that is cancelled
// while it gathers the map is cancelled after that. PCI segments are not distinguished.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kemd/api.h"
#include "kemd/cxx_library.h"

struct KEMD_API PciSlotData {
    uint8_t bus;
    uint8_t device;
    uint8_t slot;
    uint8_t type;  // "Slot Type" code of an SMBIOS system slot; 0: not known

    // A serial slot has a bus of its own. Traces which kind it is.
    [[nodiscard]] bool IsSerialBus() const;
    // Whether the record describes this device; only the bus counts when `isSerial`.
    [[nodiscard]] bool Matches(uint8_t wantedBus, uint8_t wantedDevice, bool isSerial) const;
    // Bus, device, slot and type in hexadecimal. May throw std::bad_alloc.
    [[nodiscard]] std::string Description() const;
};

enum class PciSlotSource { kNone, kIrqRoutingTable, kSmbios };

class KEMD_API CPciSlotMap {
  public:
    using Slots = std::vector<PciSlotData>;

    // The slot's number; 0 when it is not known.
    static uint8_t GetPciSlotNumber(uint8_t bus, uint8_t device);
    // The records of the map, valid until the process ends.
    static const Slots& GetSlotMapping();
    // Where the records come from; kNone when there are none.
    static PciSlotSource Source();

    // What one source says; reads the source again each time.
    static Slots GetSlotMappingFromIrqRoutingTable();
    static Slots GetSlotMappingFromSMBIOS();
    // Gives each IRQ record the type of the first SMBIOS record that describes its device.
    static void UpdateSlotTypeFromSMBios(Slots& irqSlots, const Slots& smbiosSlots);
    // The first record that describes the device; null when there is none.
    static const PciSlotData* Find(const Slots& slots, uint8_t bus, uint8_t device);
};

KEMD_CLASS_SIZE(PciSlotData, 4);
KEMD_CLASS_SIZE(CPciSlotMap, 1);
KEMD_CLASS_SIZE(CPciSlotMap::Slots, 24);
