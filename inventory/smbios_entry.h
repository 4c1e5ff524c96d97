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

// Whether the bytes begin as one of the entry points that are known.
bool HasSmbiosAnchor(std::span<const uint8_t> entryPoint);

// Checks a version-2 entry point; `mapped` may go on behind it. Traces it, and stores it with what
// it says of the table. False when its bytes do not add up to 0, or are not all there.
bool CheckSmbiosHeader(std::span<const uint8_t> mapped, SmbiosData& data);

// The revision that a stored entry point of any kind gives; traces when there is none.
std::optional<SmbiosRevision> ReadSmbiosRevision(std::span<const uint8_t> entryPoint);

// Where an entry point says that its table lies: an address in memory, or in a dump the offset.
struct SmbiosTableRange {
    uint64_t address;
    uint64_t length;
};
// Of either version; 0 where the bytes are too few.
SmbiosTableRange ReadSmbiosTableRange(std::span<const uint8_t> entryPoint);
// The entry point's own length field; 0 when it has none.
size_t ReadSmbiosEntryLength(std::span<const uint8_t> entryPoint);

// Traces bytes as hexadecimal text, 16 a record, at level 5.
void TraceHexDump(std::span<const uint8_t> bytes);
