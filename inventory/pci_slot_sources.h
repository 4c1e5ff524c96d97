// The slot records of SMBIOS tables.
#pragma once

#include "inventory/smbios.h"
#include "kemd/pci_slot_map.h"

// Empty when there are none, and when there is no memory.
CPciSlotMap::Slots GatherSmbiosSlots(const CSMBios& smbios);
