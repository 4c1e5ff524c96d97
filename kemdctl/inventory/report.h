// What kemdctl inventory knows of a machine, and how it is shown.
#pragma once

#include <string>

#include "inventory/smbios.h"
#include "kemdctl/inventory/slots.h"
#include "kemdctl/ui/json.h"

struct Inventory {
    CSMBios smbios;
    bool hasSmbios = false;
    SlotRows slots;
    PciSlotSource slotSource = PciSlotSource::kNone;
    std::string error;  // what is missing or broken, and why; empty: nothing
};

void ShowInventory(const Inventory& inventory);
void ShowInventoryAsJson(const Inventory& inventory);
// Members of objects: of which kind a row is and what is printed there, and whether the object is
// complete, with the error if it is not.
void AddSlotName(JsonWriter& json, const SlotRow& row);
void AddError(JsonWriter& json, const std::string& error);
