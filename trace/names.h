// Small texts: module names in other forms, copies.
#pragma once

#include <cstddef>
#include <memory>

// Appends an underscore and the upper-case form of `text` to the text in `buffer`, which has room
// for `size` bytes in all; what does not fit is cut and the result is terminated.
void AppendUpperCase(char* buffer, size_t size, const char* text);

// Turns a text to lower case in place.
void ToLowerCase(char* text);

// A copy on the heap, null when memory does not suffice.
std::unique_ptr<char[]> CopyText(const char* text);
