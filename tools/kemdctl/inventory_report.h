// What kemdctl inventory knows of a machine, and how it is shown.
#pragma once

#include "inventory/smbios.h"
#include "kemd/pci_slot_map.h"

struct Inventory {
    CSMBios smbios;
    bool hasSmbios = false;
    CPciSlotMap::Slots slots;
    PciSlotSource slotSource = PciSlotSource::kNone;
};

void ShowInventory(const Inventory& inventory);
void ShowInventoryAsJson(const Inventory& inventory);
