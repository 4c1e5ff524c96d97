#include "inventory/shadow_memory.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "inventory/smbios_entry.h"
#include "inventory/table_field.h"
#include "trace/debug.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint32_t kArea = 0xE0000;
constexpr size_t kAreaSize = 0x20000;
constexpr size_t kParagraph = 16;

// Whether an entry point begins at this underscore.
bool IsEntryPoint(Bytes area, size_t offset) {
    const unsigned address = kArea + static_cast<unsigned>(offset);
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

bool GetShadowSmbios(CDeviceBiosBase& device, SmbiosData& data) {
    TRACE(3, "\nCSMBios (GetShadow) : Get SMBIOS data from BIOS shadow memory (E0000...FFFFF)");
    const Bytes area = device.Map(kArea, kAreaSize);
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
