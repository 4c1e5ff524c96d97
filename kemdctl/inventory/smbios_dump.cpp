#include "kemdctl/inventory/smbios_dump.h"

#include <algorithm>
#include <span>

#include "inventory/table_field.h"

namespace {

constexpr size_t kTableOffset = 32;

// Stores a number, little-endian.
void Store(std::vector<uint8_t>& bytes, size_t offset, size_t size, uint64_t number) {
    for (size_t i = 0; i < size; ++i) bytes[offset + i] = static_cast<uint8_t>(number >> (8 * i));
}

// Makes the bytes from `start` to `end` add up to 0 by the one at `position`.
void FixChecksum(std::vector<uint8_t>& bytes, size_t start, size_t end, size_t position) {
    bytes[position] = 0;
    uint8_t sum = 0;
    for (size_t i = start; i < end; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    bytes[position] = static_cast<uint8_t>(-sum);
}

}  // namespace

std::string EncodeSmbiosDump(const SmbiosData& data) {
    std::vector<uint8_t> entry = data.entryPoint;
    const size_t length = ReadSmbiosEntryLength(entry);
    if (length > entry.size() || data.table.empty()) return {};
    // DMTF DSP0134, the two entry points: table address, table length, checksums.
    if (BeginsWith(entry, "_SM3_") && length >= 24 && length <= kTableOffset) {
        Store(entry, 0x0C, 4, data.table.size());
        Store(entry, 0x10, 8, kTableOffset);
        FixChecksum(entry, 0, length, 0x05);
    } else if (BeginsWith(entry, "_SM_") && length >= 30 && length <= kTableOffset &&
               data.table.size() <= UINT16_MAX) {
        entry.resize(kTableOffset);  // some firmware counts one byte too few
        Store(entry, 0x16, 2, data.table.size());
        Store(entry, 0x18, 4, kTableOffset);
        FixChecksum(entry, 0x10, 0x1F, 0x15);
        FixChecksum(entry, 0, length, 0x04);
    } else {
        return {};
    }
    entry.resize(kTableOffset);
    std::string file(entry.begin(), entry.end());
    return file.append(data.table.begin(), data.table.end());
}

bool DecodeSmbiosDump(const std::vector<uint8_t>& file, SmbiosData& data) {
    const std::span<const uint8_t> bytes(file);
    data.source = SmbiosSource::kFile;
    if (BeginsWith(bytes, "_SM3_")) {
        const size_t length = ReadSmbiosEntryLength(bytes);
        if (length < 24 || length > bytes.size()) return false;
        data.entryPoint.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    } else if (!BeginsWith(bytes, "_SM_") || !CheckSmbiosHeader(bytes, data)) {
        return false;
    }
    const SmbiosTableRange range = ReadSmbiosTableRange(bytes);
    if (range.address >= bytes.size()) return false;
    const auto rest = bytes.subspan(range.address);
    // The length of a version-3 entry point is the most that the table can have.
    if (range.length > rest.size() && !BeginsWith(bytes, "_SM3_")) return false;
    const auto table = rest.first(std::min<uint64_t>(range.length, rest.size()));
    data.table.assign(table.begin(), table.end());
    return !data.table.empty();
}
