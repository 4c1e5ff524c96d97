// The text of a registry file and the tree: parsing and writing, without knowing where the text is
// kept. Neither recurses, however deep a tree is.
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

struct ParsedRegistry {
    // Nothing when the file could not be read to its end, or is none.
    std::optional<RegistryEntries> entries;
    // 0, or why not every line is among them: the errno of a call that failed, ENOMEM, or ENODATA
    // when no line was a value or a subkey.
    int error = 0;
    // No registry file, and will be none the next time.
    bool isNone = false;
};

// Reads the lines up to the first empty one at the top level. The entries are sorted; of those with
// the same name the last one stays. A value for which memory does not suffice is skipped; without
// memory for a subkey std::bad_alloc.
ParsedRegistry ParseRegistry(LineReader& lines);
// The same into a key: entries replace those of the same name, subkeys with all below them, and the
// others stay. 0, ENODATA when there was nothing, or why not every line was read; then the key is
// as it was.
int ParseRegistry(LineReader& lines, CRegistryNode& target);

// Gives the text to `write` in pieces; false when that returned false. The lock of a key is held
// while its own entries are copied, never while `write` runs.
bool WriteRegistry(CRegistryNode& root, const std::function<bool(std::string_view)>& write);
