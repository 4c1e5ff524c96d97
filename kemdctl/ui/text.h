// Text that comes from elsewhere, made fit to be shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The bytes of the UTF-8 sequence that the text begins with; 0 when it begins with none.
size_t Utf8Length(std::string_view text);

// The code point of a character, whose length is what Utf8Length returned.
uint32_t CodePoint(std::string_view character);

// Whether a character acts on what is shown around it: C0, DEL and C1, those that turn the
// direction of writing, and the separators of lines and paragraphs.
bool IsControl(uint32_t codePoint);

// Control characters and bytes that are no UTF-8 become \n, \t, \r or \x1b and the like, so that a
// text cannot drive a terminal. A backslash stays one.
std::string Printable(std::string_view text);

// A name as one word of a shell's command; one with control characters as $'...'.
std::string ShellQuoted(std::string_view name);

// "1 time", "2 times", "0 times".
std::string Counted(size_t count, const char* noun);
// A size in bytes, from one MiB on in MiB.
std::string SizeText(uint64_t bytes);

// How many characters a printable text has.
size_t Width(std::string_view text);
