// The SMBIOS tables by a search in the BIOS shadow memory, for systems that offer them in no other
// way.
#pragma once

#include "inventory/device_bios.h"
#include "inventory/smbios_data.h"

// Finds a "_SM_" entry point in the area from 0xE0000 to 0xFFFFF, checks it and copies the table.
// False with data.error and a trace. std::bad_alloc when memory does not suffice.
bool GetShadowSmbios(CDeviceBiosBase& device, SmbiosData& data);
