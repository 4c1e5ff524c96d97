// One line of a registry file: what it says, and how a value is written. Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "services/registry/entry.h"

struct RegistryLine {
    enum Kind {
        kEnd,     // of the key in hand
        kHeader,  // of a subkey
        kValue,
        kIgnored,
    } kind = kIgnored;
    std::string_view name = {};
    RegistryType type = kRegistryString;  // of a value
    std::string_view data = {};           // of a value: what stands behind the marker
};

// The views point into the line.
RegistryLine DecodeRegistryLine(std::string_view line);

// The data of a number: decimal, cut to 32 bits; what follows the digits does not matter. Nothing
// without digits.
std::optional<int32_t> DecodeRegistryNumber(std::string_view data);
// The data of a binary value: hexadecimal numbers up to the first thing that is none, the low 8
// bits of each.
std::string DecodeRegistryBinary(std::string_view data);

// Appends a value's line; nothing for a subkey.
void AppendRegistryValue(std::string& text, const RegistryEntry& entry);
