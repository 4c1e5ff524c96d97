// Text that comes from elsewhere, made fit to be shown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The bytes of the UTF-8 sequence that the text begins with; 0 when it begins with none.
size_t Utf8Length(std::string_view text);

// Control characters and bytes that are no UTF-8 become \n, \t, \r or \x1b and the like, so that a
// text cannot drive a terminal. A backslash stays one.
std::string Printable(std::string_view text);

// How many characters a printable text has.
size_t Width(std::string_view text);
