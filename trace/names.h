// Texts made from a module name.
#pragma once

#include <cstddef>

// Appends an underscore and the upper-case form of `text` to the text in `buffer`, which has room
// for `size` bytes in all; what does not fit is cut and the result is terminated.
void AppendUpperCase(char* buffer, size_t size, const char* text);

// Turns a text to lower case in place.
void ToLowerCase(char* text);
