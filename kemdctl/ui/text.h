// Text that comes from elsewhere, made fit to be shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/utf8.h"

// Control characters and bytes that are no UTF-8 become \n, \t, \r or \x1b and the like, so that a
// text cannot drive a terminal. A backslash stays one.
std::string Printable(std::string_view text);

// A name as one word of a shell's command; one with control characters as $'...'.
std::string ShellQuoted(std::string_view name);

// "1 time", "2 times", "0 times".
std::string Counted(size_t count, const char* noun);
// The shortest text that gives the same number again.
std::string NumberText(double number);
// A size in bytes, from one MiB on in MiB.
std::string SizeText(uint64_t bytes);
// JSON as the data of a script element: nothing in it can end the element or begin a comment, and
// every replacement is the same character again in a JSON text.
std::string InScript(std::string_view json);
