// Parsing and writing the text of a registry file, line by line and as a tree. Nothing here opens a
// file, and nothing recurses, however deep the tree is.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/line_reader.h"
#include "services/registry/node.h"

struct RegistryLine {
    enum Kind {
        kEnd,     // of the current key
        kHeader,  // of a subkey
        kValue,
        kIgnored,
    } kind = kIgnored;
    std::string_view name = {};
    RegistryType type = kRegistryString;  // of a value
    std::string_view data = {};           // of a value: what follows the marker
};

// The views point into the line.
RegistryLine DecodeRegistryLine(std::string_view line);

// The data of a number: decimal, cut to 32 bits. Ignores what follows the digits; nothing without
// digits.
std::optional<int32_t> DecodeRegistryNumber(std::string_view data);
// The data of a binary value: the low 8 bits of each hexadecimal number, up to the first text that
// is not one.
std::string DecodeRegistryBinary(std::string_view data);

// Appends a value's line; nothing for a subkey.
void AppendRegistryValue(std::string& text, const RegistryEntry& entry);

struct ParsedRegistry {
    // Nothing when the file could not be read to its end or is not a registry.
    std::optional<RegistryEntries> entries;
    // 0, or why lines are missing: the errno of a failed call, ENOMEM, or ENODATA when no line was
    // a value or a subkey.
    int error = 0;
    // Not a registry, and reading it again will not help.
    bool isNone = false;
};

// Reads up to the first empty line at the top level. The entries are sorted; of several with the
// same name the last one stays. Skips a value when there is not enough memory for it; throws
// std::bad_alloc for a subkey.
ParsedRegistry ParseRegistry(LineReader& lines);
// The same into a key. Entries replace those of the same name, subkeys with all below them; the
// others stay. Returns 0, or the error of ParsedRegistry; the key is then unchanged.
int ParseRegistry(LineReader& lines, CRegistryNode& target);

// Passes the text to `write` in fragments and stops with false when `write` returns false. Holds a
// key's lock while copying its entries, never while calling `write`.
bool WriteRegistry(CRegistryNode& root, const std::function<bool(std::string_view)>& write);
