// The table of encodings: numbers as Windows gives them, names as IANA lists them, aliases.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

struct CodePage {
    uint32_t number;      // 0: Windows has none for it
    const char* name;     // preferred
    const char* aliases;  // with a blank between each two
};

std::span<const CodePage> CodePages();
// By name, alias or number in decimal, without regard to case, blanks, '-' and '_'; null: unknown.
const CodePage* FindCodePage(std::string_view name);
const CodePage* FindCodePage(uint32_t number);
// The alias at this position; empty after the last.
std::string_view AliasAt(const CodePage& page, size_t position);
