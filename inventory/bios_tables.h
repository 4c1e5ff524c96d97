// Gets the SMBIOS tables from the operating system: the kernel's copies, the memory that the EFI
// system table points to, or the device of an ESXi host, in this order.
#pragma once

#include <optional>

#include "inventory/device_bios.h"
#include "inventory/smbios_data.h"

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
