// The SMBIOS tables as a source delivered them, and their entry point: "_SM_" of version 2.1 and
// above, "_SM3_" of version 3.
// Layouts: DMTF DSP0134, "SMBIOS 2.1 (32-bit) Entry Point" and "SMBIOS 3.0 (64-bit) Entry Point".
#pragma once

#include <cstdint>
#include <optional>
#include <span>
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

struct SmbiosRevision {
    uint8_t major = 0;
    uint8_t minor = 0;
};

// Whether the bytes begin like a known entry point.
bool HasSmbiosAnchor(std::span<const uint8_t> entryPoint);

// Checks a version-2 entry point at the start of `mapped`. Traces it, and stores it with what it
// says about the table. False when its bytes do not add up to 0 or are incomplete.
bool CheckSmbiosHeader(std::span<const uint8_t> mapped, SmbiosData& data);

// The revision in a stored entry point of any kind; traces when there is none.
std::optional<SmbiosRevision> ReadSmbiosRevision(std::span<const uint8_t> entryPoint);

// Where the table lies according to the entry point: an address in memory, an offset in a dump.
struct SmbiosTableRange {
    uint64_t address;
    uint64_t length;
};
// Of either version; fields beyond the end of the bytes are 0.
SmbiosTableRange ReadSmbiosTableRange(std::span<const uint8_t> entryPoint);
// The entry point's own length field; 0 when it has none.
size_t ReadSmbiosEntryLength(std::span<const uint8_t> entryPoint);

// Traces bytes as hexadecimal text, 16 a record, at level 5.
void TraceHexDump(std::span<const uint8_t> bytes);
