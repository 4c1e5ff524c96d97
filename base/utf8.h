// Characters of UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// The bytes of the UTF-8 sequence that the text begins with; 0 when it begins with none.
size_t Utf8Length(std::string_view text);

// The code point of a character, whose length is what Utf8Length returned.
uint32_t CodePoint(std::string_view character);

// Whether a character acts on what is shown around it: C0, DEL and C1, those that turn the
// direction of writing, and the separators of lines and paragraphs.
bool IsControl(uint32_t codePoint);

// How many characters a printable text has.
size_t Width(std::string_view text);
