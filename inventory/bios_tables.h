// Where the SMBIOS tables come from. The operating system has them as the kernel's copies, in the
// memory that the EFI system table points to, or in the device of an ESXi host, asked in this
// order; for systems that offer none of these there is a search in the BIOS shadow memory.
#pragma once

#include <optional>

#include "inventory/device_bios.h"
#include "inventory/smbios_entry.h"

inline constexpr const char* kSmbiosEntryFile = "/sys/firmware/dmi/tables/smbios_entry_point";
inline constexpr const char* kSmbiosTableFile = "/sys/firmware/dmi/tables/DMI";
inline constexpr const char* kEfiSystab = "/sys/firmware/efi/systab";
inline constexpr const char* kOldEfiSystab = "/proc/efi/systab";
inline constexpr const char* kEsxiSmbios = "/vmfs/devices/char/mem/smbios";
// All files that a source reads.
inline constexpr const char* kInventoryFiles[] = {
    kSmbiosEntryFile, kSmbiosTableFile, kEfiSystab, kOldEfiSystab, kEsxiSmbios, kMemoryDevice};

class CBiosTables {
  public:
    // Nothing when no source delivers. std::bad_alloc when memory does not suffice.
    static std::optional<SmbiosData> GetSmbiosData();
};

// No table is larger: what firmware says beyond that is not believed.
inline constexpr size_t kLargestSmbiosTable = size_t{16} * 1024 * 1024;

// A file's bytes; nothing when it is not regular, cannot be read or has more than the limit.
std::optional<std::vector<uint8_t>> ReadTableFile(const char* path, size_t limit);

// Finds a "_SM_" entry point in the area from 0xE0000 to 0xFFFFF, checks it and copies the table.
// False with data.error and a trace. std::bad_alloc when memory does not suffice.
bool GetShadowSmbios(CDeviceBiosBase& device, SmbiosData& data);
