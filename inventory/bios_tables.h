// The sources of the SMBIOS tables. The operating system has them as the kernel's copies, in the
// memory that the EFI system table points to, or in the device of an ESXi host, tried in this
// order. On a system without any of these the BIOS shadow memory is searched.
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
    // From the first source of the operating system that has them. May throw std::bad_alloc.
    static std::optional<SmbiosData> GetSmbiosData();
};

// Firmware that claims a larger table is not believed.
inline constexpr size_t kLargestSmbiosTable = size_t{16} * 1024 * 1024;

// A file's bytes; nothing when it is empty, not regular, not readable or larger than the limit.
std::optional<std::vector<uint8_t>> ReadTableFile(const char* path, size_t limit);

// Finds a "_SM_" entry point in the area from 0xE0000 to 0xFFFFF, checks it and copies the table.
// On failure false, with data.error and a trace. May throw std::bad_alloc.
bool GetShadowSmbios(CDeviceBiosBase& device, SmbiosData& data);
