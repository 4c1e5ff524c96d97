// The table of fields: name, kind, part and unit of each, and the words of its values.
#pragma once

#include <cstdint>
#include <string>

#include "kemd/network.h"

struct FieldRow {
    uint32_t field;
    const char* name;
    uint32_t kind;  // KEMD_NETWORK_KIND_
    uint32_t part;
    const char* unit;
};

// Null when there is no such field.
[[nodiscard]] const FieldRow* FindField(uint32_t field);

// A value of a field as text: its word or words, or the number.
[[nodiscard]] std::string ValueText(const FieldRow& row, uint64_t value);
