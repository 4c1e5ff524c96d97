#include "inventory/smbios_entry.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>

#include "inventory/table_field.h"
#include "trace/debug.h"

namespace {

using Bytes = std::span<const uint8_t>;

// "SMBIOS 2.1 (32-bit) Entry Point", by field name.
constexpr size_t kEntryPointLength = 0x05;
constexpr size_t kMajorVersion = 0x06;
constexpr size_t kMinorVersion = 0x07;
constexpr size_t kTableLength = 0x16;
constexpr size_t kTableAddress = 0x18;
constexpr size_t kStructureCount = 0x1C;
constexpr size_t kBcdRevision = 0x1E;

// "SMBIOS 3.0 (64-bit) Entry Point".
constexpr size_t kEntryPointLength3 = 0x06;
constexpr size_t kMajorVersion3 = 0x07;
constexpr size_t kMinorVersion3 = 0x08;
constexpr size_t kTableMaximumSize3 = 0x0C;
constexpr size_t kTableAddress3 = 0x10;

bool IsVersion3(Bytes entryPoint) {
    return BeginsWith(entryPoint, "_SM3_");
}

void TraceHeader(Bytes mapped, const SmbiosData& data) {
    TRACE(5, "\nCheckSmbiosHeader   : Dump of DMI structure header:");
    TraceHexDump(mapped.first(std::min<size_t>(mapped.size(), 32)));
    TRACE(3, "Header size:    %d", ReadByte(mapped, kEntryPointLength));
    TRACE(3, "Anchor string:  %c%c%c%c", ReadByte(mapped, 0), ReadByte(mapped, 1),
          ReadByte(mapped, 2), ReadByte(mapped, 3));
    TRACE(3, "DMI Version:    %d.%d (BCD Rev: %02X)", ReadByte(mapped, kMajorVersion),
          ReadByte(mapped, kMinorVersion), ReadByte(mapped, kBcdRevision));
    TRACE(3, "number of structures: %d", data.structureCount);
    TRACE(3, "struct address: 0x%08X, size 0x%04X", data.tableAddress, data.tableLength);
}

}  // namespace

void TraceHexDump(std::span<const uint8_t> bytes) {
    constexpr size_t kPerLine = 16;
    if (!Debug.IsTraceOn()) return;
    for (size_t offset = 0; offset < bytes.size(); offset += kPerLine) {
        std::array<char, 3 * kPerLine + 1> text{};
        const size_t count = std::min(kPerLine, bytes.size() - offset);
        for (size_t i = 0; i < count; ++i) {
            std::snprintf(text.data() + 3 * i, 4, " %02X", bytes[offset + i]);
        }
        TRACE(5, "%04X:%s", static_cast<unsigned>(offset), text.data());
    }
}

bool HasSmbiosAnchor(Bytes entryPoint) {
    return BeginsWith(entryPoint, "_SM_") || IsVersion3(entryPoint) ||
           BeginsWith(entryPoint, "UEFI");
}

bool CheckSmbiosHeader(Bytes mapped, SmbiosData& data) {
    if (mapped.data() == nullptr) return false;
    data.tableAddress = ReadDword(mapped, kTableAddress);
    data.tableLength = ReadWord(mapped, kTableLength);
    data.structureCount = ReadWord(mapped, kStructureCount);
    TraceHeader(mapped, data);
    const size_t length = ReadByte(mapped, kEntryPointLength);
    const Bytes header = mapped.first(std::min(length, mapped.size()));
    const int sum = std::accumulate(header.begin(), header.end(), 0);
    if (length == 0 || length > mapped.size() || sum % 256 != 0) {
        data.error = "CHECKSUM ERROR in DMI structure header!";
        TRACE(1, "\n\nCheckSmbiosHeader   : ## CHECKSUM ERROR in DMI structure header!\n");
        return false;
    }
    TRACE(2, "\nCheckSmbiosHeader   : Checksum OK, storing header");
    data.entryPoint.assign(header.begin(), header.end());
    return true;
}

std::optional<SmbiosRevision> ReadSmbiosRevision(Bytes entryPoint) {
    if (entryPoint.empty()) {
        TRACE(1, "\nCSMBios::setSmbiosRevisionFromHeader() : Error # No SMBios header to process!");
        return std::nullopt;
    }
    const auto at = [entryPoint](size_t major, size_t minor) {
        return SmbiosRevision{ReadByte(entryPoint, major), ReadByte(entryPoint, minor)};
    };
    if (entryPoint.size() > 4) {
        if (BeginsWith(entryPoint, "UEFI")) return at(4, 5);
        if (BeginsWith(entryPoint, "_SM_")) return at(kMajorVersion, kMinorVersion);
        if (entryPoint.size() > 5 && IsVersion3(entryPoint)) {
            return at(kMajorVersion3, kMinorVersion3);
        }
    }
    TRACE(1,
          "\nCSMBios::setSmbiosRevisionFromHeader() : Error # Invalid SMBios version! (no anchor "
          "string matched)");
    return std::nullopt;
}

SmbiosTableRange ReadSmbiosTableRange(Bytes entryPoint) {
    if (IsVersion3(entryPoint)) {
        return {ReadQword(entryPoint, kTableAddress3), ReadDword(entryPoint, kTableMaximumSize3)};
    }
    return {ReadDword(entryPoint, kTableAddress), ReadWord(entryPoint, kTableLength)};
}

size_t ReadSmbiosEntryLength(Bytes entryPoint) {
    if (IsVersion3(entryPoint)) return ReadByte(entryPoint, kEntryPointLength3);
    return BeginsWith(entryPoint, "_SM_") ? ReadByte(entryPoint, kEntryPointLength) : 0;
}
