// The firmware's SMBIOS tables as a source delivered them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class SmbiosSource { kNone, kSysfs, kMemory, kEsxiDevice, kShadowMemory, kFile };

struct SmbiosData {
    SmbiosSource source = SmbiosSource::kNone;
    std::vector<uint8_t> entryPoint;
    std::vector<uint8_t> table;
    // Taken from a checked version-2 entry point; 0 from every other one.
    uint16_t structureCount = 0;
    uint32_t tableAddress = 0;
    uint16_t tableLength = 0;
    std::string error;  // what went wrong, empty when nothing did
};
