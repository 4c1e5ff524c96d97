// How kemdctl inventory shows a machine.
#pragma once

#include <string>

#include "kemdctl/inventory/machine.h"
#include "kemdctl/ui/json.h"

void ShowInventory(const Inventory& inventory);
void ShowInventoryAsJson(const Inventory& inventory);
// Members of objects: of which kind a row is and what is printed there, and whether the object is
// complete, with the error if it is not.
void AddSlotName(JsonWriter& json, const SlotRow& row);
void AddError(JsonWriter& json, const std::string& error);
