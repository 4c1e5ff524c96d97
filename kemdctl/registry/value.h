// Values as people write and read them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "services/registry/node.h"

class ReportWriter;

// "string", "expand", "binary", "number", or "key" for a subkey.
const char* TypeName(uint32_t type);
// Text as it is stored, a number in decimal, binary data as hexadecimal numbers.
std::string DataText(const RegistryEntry& entry);
// An object of name, type and data.
void ReportValue(ReportWriter& report, const RegistryEntry& entry, const std::string& data);

// The reverse. Complains when the type is unknown or the data do not fit it.
std::optional<RegistryEntry> MakeValue(std::string_view name, std::string_view type,
                                       std::string_view data);
