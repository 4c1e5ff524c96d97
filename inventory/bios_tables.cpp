#include "inventory/bios_tables.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/file_io.h"
#include "inventory/table_field.h"
#include "trace/debug.h"

namespace {

constexpr size_t kEntryPoint2Size = 32;
constexpr size_t kEntryPoint3Size = 24;

using Buffer = std::vector<uint8_t>;
using Bytes = std::span<const uint8_t>;

std::optional<Buffer> ReadAll(int fd, size_t limit) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return std::nullopt;
    constexpr size_t kStep = 4096;
    const auto size = static_cast<size_t>(status.st_size);  // 0: a device does not know it
    Buffer bytes(std::min(size == 0 ? kStep : size, limit + 1));
    size_t done = 0;
    while (size == 0 || done < size) {
        const ReadResult got = ReadFully(fd, bytes.data() + done, bytes.size() - done);
        if (got.error != 0) return std::nullopt;
        if (got.count == 0) break;
        done += got.count;
        if (done > limit) return std::nullopt;
        if (size == 0 && done == bytes.size()) bytes.resize(done + kStep);
    }
    bytes.resize(done);
    return bytes;
}

std::optional<SmbiosData> GetAnySMBiosFromSysfs() {
    auto entry = ReadTableFile(kSmbiosEntryFile, 4096);
    if (!entry) {
        TRACE(3, "\nCBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios entry file.");
        return std::nullopt;
    }
    auto table = ReadTableFile(kSmbiosTableFile, kLargestSmbiosTable);
    if (!table) {
        TRACE(3, "\nCBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios data table file.");
        return std::nullopt;
    }
    if (!HasSmbiosAnchor(*entry)) {
        TRACE(3, "\nCBiosTables::GetAnySMBiosFromSysfs() : Invalid SMBios.");
        return std::nullopt;
    }
    TRACE(3, "\nCBiosTables::GetAnySMBiosFromSysfs() Success : Header (%u) bytes, Data (%u) bytes",
          static_cast<unsigned>(entry->size()), static_cast<unsigned>(table->size()));
    SmbiosData data;
    data.source = SmbiosSource::kSysfs;
    data.entryPoint = std::move(*entry);
    data.table = std::move(*table);
    return data;
}

// The table that a stored entry point describes.
bool CopyTable(CDeviceBiosBase& device, SmbiosData& data) {
    const SmbiosTableRange range = ReadSmbiosTableRange(data.entryPoint);
    if (range.address == 0 || range.length == 0 || range.length > kLargestSmbiosTable) return false;
    const auto table = device.Map(range.address, range.length);
    data.table.assign(table.begin(), table.end());
    return !table.empty();
}

bool ReadVersion3(CDeviceBiosBase& device, uint64_t address, SmbiosData& data) {
    const auto mapped = address != 0 ? device.Map(address, kEntryPoint3Size) : Bytes();
    if (!BeginsWith(mapped, "_SM3_")) return false;
    data.entryPoint.assign(mapped.begin(), mapped.end());
    return CopyTable(device, data);
}

bool ReadVersion2(CDeviceBiosBase& device, uint64_t address, SmbiosData& data) {
    if (address == 0) return false;
    const auto mapped = device.Map(address, kEntryPoint2Size);
    return BeginsWith(mapped, "_SM_") && CheckSmbiosHeader(mapped, data) && CopyTable(device, data);
}

// Where the EFI firmware put its SMBIOS entry points, as the kernel says in text lines
// "NAME=0xADDRESS".
struct EfiSmbiosAddresses {
    uint64_t version3 = 0;  // "SMBIOS3"; 0: there is none
    uint64_t version2 = 0;  // "SMBIOS"
};

// 0 unless the whole text is a hexadecimal number.
uint64_t ParseAddress(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    uint64_t address = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), address, 16);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? address : 0;
}

// Skips lines with other names and lines without a valid address.
EfiSmbiosAddresses ParseEfiSystemTable(std::string_view text) {
    EfiSmbiosAddresses addresses;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        const size_t equals = line.find('=');
        if (equals == line.npos) continue;
        const std::string_view name = line.substr(0, equals);
        const uint64_t address = ParseAddress(line.substr(equals + 1));
        if (address == 0) continue;
        if (name == "SMBIOS3") addresses.version3 = address;
        if (name == "SMBIOS") addresses.version2 = address;
    }
    return addresses;
}

std::optional<SmbiosData> GetAnySMBiosFromMemory() {
    constexpr size_t kLimit = size_t{64} * 1024;
    auto text = ReadTableFile(kEfiSystab, kLimit);
    if (!text) text = ReadTableFile(kOldEfiSystab, kLimit);
    EfiSmbiosAddresses addresses;
    if (text) {
        addresses = ParseEfiSystemTable({reinterpret_cast<char*>(text->data()), text->size()});
    }
    if (addresses.version3 == 0 && addresses.version2 == 0) {
        TRACE(3, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 3 in memory.");
        TRACE(3, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 2 in memory.");
        return std::nullopt;
    }
    CDeviceBios device;
    SmbiosData data;
    data.source = SmbiosSource::kMemory;
    if (ReadVersion3(device, addresses.version3, data)) return data;
    TRACE(3, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 3 in memory.");
    if (ReadVersion2(device, addresses.version2, data)) return data;
    TRACE(3, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 2 in memory.");
    return std::nullopt;
}

// The device gives the entry point followed by the table.
std::optional<SmbiosData> GetEsxiSmbios() {
    const UniqueFd device(open(kEsxiSmbios, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!device.IsOpen() || fstat(device.Get(), &status) != 0) return std::nullopt;
    if (!S_ISCHR(status.st_mode) && !S_ISREG(status.st_mode)) return std::nullopt;
    const auto bytes = ReadAll(device.Get(), kLargestSmbiosTable);
    if (!bytes || !HasSmbiosAnchor(*bytes)) return std::nullopt;
    const size_t length = ReadSmbiosEntryLength(*bytes);
    if (length == 0 || length >= bytes->size()) return std::nullopt;
    SmbiosData data;
    data.source = SmbiosSource::kEsxiDevice;
    const auto end = bytes->begin() + static_cast<std::ptrdiff_t>(length);
    data.entryPoint.assign(bytes->begin(), end);
    data.table.assign(end, bytes->end());
    return data;
}

constexpr uint32_t kShadow = 0xE0000;
constexpr size_t kShadowSize = 0x20000;
constexpr size_t kParagraph = 16;

// Whether an entry point begins at this underscore.
bool IsEntryPoint(Bytes area, size_t offset) {
    const unsigned address = kShadow + static_cast<unsigned>(offset);
    if (offset % kParagraph != 0) {
        TRACE(6,
              "\nScanForSignature    :   '_' found at a non-paragraph address (0x%08X), continue "
              "searching",
              address);
        return false;
    }
    if (!BeginsWith(area.subspan(offset), "_SM_")) return false;
    TRACE(3, "\nScanForSignature    : SMBIOS signature \"_SM_\" found (SM BIOS >= 2.1) at 0x%08X",
          address);
    return true;
}

// From the entry point to the area's end; empty when there is none.
Bytes ScanForSignature(Bytes area) {
    const size_t end = area.size() - kParagraph;
    for (size_t offset = 0; offset < end; ++offset) {
        const void* hit = std::memchr(area.data() + offset, '_', end - offset);
        if (hit == nullptr) break;
        offset = static_cast<size_t>(static_cast<const uint8_t*>(hit) - area.data());
        if (IsEntryPoint(area, offset)) return area.subspan(offset);
    }
    return {};
}

bool Fail(SmbiosData& data, const char* format, int error) KEMD_PRINTF(2, 0);
bool Fail(SmbiosData& data, const char* format, int error) {
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), format, static_cast<unsigned>(error));
    data.error = text.data();
    TRACE(1, "\n\nCSMBios (GetShadow) : ## ERROR! %s", text.data());
    return false;
}

}  // namespace

std::optional<Buffer> ReadTableFile(const char* path, size_t limit) {
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) return std::nullopt;
    auto bytes = ReadAll(file.Get(), limit);
    if (bytes && bytes->empty()) bytes.reset();
    return bytes;
}

std::optional<SmbiosData> CBiosTables::GetSmbiosData() {
    TRACE(5, "\nCBiosTables::GetSmbiosData() Start.");
    if (auto data = GetAnySMBiosFromSysfs()) {
        TRACE(5, "\nCBiosTables::GetSmbiosData() : Found in sysfs.");
        return data;
    }
    if (auto data = GetAnySMBiosFromMemory()) {
        TRACE(5, "\nCBiosTables::GetSmbiosData() : Found in memory.");
        return data;
    }
    if (auto data = GetEsxiSmbios()) {
        TRACE(5, "\nCBiosTables::GetSmbiosData() : ESXi specific SMBios found.");
        return data;
    }
    TRACE(1, "\nCBiosTables::GetSmbiosData() : ERROR ## No SMBios found!");
    return std::nullopt;
}

bool GetShadowSmbios(CDeviceBiosBase& device, SmbiosData& data) {
    TRACE(3, "\nCSMBios (GetShadow) : Get SMBIOS data from BIOS shadow memory (E0000...FFFFF)");
    const Bytes area = device.Map(kShadow, kShadowSize);
    if (area.empty()) {
        return Fail(data, "Could not map SMBIOS physical memory (LastError = 0x%08X)!",
                    device.LastError());
    }
    const Bytes entryPoint = ScanForSignature(area);
    if (!entryPoint.empty() && !CheckSmbiosHeader(entryPoint, data)) return false;
    if (data.tableAddress == 0) {
        return Fail(data, "No address for SMBIOS strucures detected!", 0);
    }
    const Bytes table = device.Map(data.tableAddress, data.tableLength);
    if (table.empty()) {
        return Fail(data, "Remapping of SMBIOS structure memory failed (LastError = 0x%08X)!",
                    device.LastError());
    }
    data.source = SmbiosSource::kShadowMemory;
    data.table.assign(table.begin(), table.end());
    return true;
}
