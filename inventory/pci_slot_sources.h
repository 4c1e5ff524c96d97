// The slot records of SMBIOS tables.
#pragma once

#include "inventory/smbios.h"
#include "kemd/pci_slot_map.h"

// Nothing when there are none, or memory does not suffice.
CPciSlotMap::Slots GatherSmbiosSlots(const CSMBios& smbios);
