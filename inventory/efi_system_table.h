// Where the EFI firmware put its SMBIOS entry points, as the kernel tells in text lines
// "NAME=0xADDRESS".
#pragma once

#include <cstdint>
#include <string_view>

struct EfiSmbiosAddresses {
    uint64_t version3 = 0;  // "SMBIOS3"; 0: there is none
    uint64_t version2 = 0;  // "SMBIOS"
};

// Lines that say something else, or nothing sensible, are skipped.
EfiSmbiosAddresses ParseEfiSystemTable(std::string_view text);
