// Gets the SMBIOS tables from the operating system: the kernel's copies, the memory that the EFI
// system table points to, or the device of an ESXi host, in this order.
#pragma once

#include <optional>

#include "inventory/device_bios.h"
#include "inventory/smbios_data.h"

class CBiosTables {
  public:
    // Nothing when no source delivers. std::bad_alloc when memory does not suffice.
    static std::optional<SmbiosData> GetSmbiosData();
};

// No table is larger: what firmware says beyond that is not believed.
inline constexpr size_t kLargestSmbiosTable = size_t{16} * 1024 * 1024;

// A file's bytes; nothing when it is not regular, cannot be read or has more than the limit.
std::optional<std::vector<uint8_t>> ReadTableFile(const char* path, size_t limit);
