// Words for the codes of DMTF DSP0134.
#pragma once

#include <cstdint>
#include <string>

// "Slot Type" of "System Slots (Type 9)"; the code itself when it has no name.
std::string SlotTypeName(uint8_t type);
// A structure's type; "OEM-specific" or "reserved" when it has no name.
const char* StructureName(uint8_t type);
