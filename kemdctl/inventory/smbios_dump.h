// SMBIOS tables in one file: 32 bytes for the entry point, whose address of the table is the offset
// 32, and the table. The form that dmidecode writes and reads.
#pragma once

#include <string>

#include "inventory/smbios_entry.h"

// The file's content; empty when the entry point is of a kind that the form does not know.
std::string EncodeSmbiosDump(const SmbiosData& data);

// False when the file holds no such tables.
bool DecodeSmbiosDump(const std::vector<uint8_t>& file, SmbiosData& data);
