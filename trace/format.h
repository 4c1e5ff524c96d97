// vsnprintf for trace texts: the same results, several times faster for what most of them are made
// of. Formatting is the largest part of the cost of a record.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "kemd/api.h"

// Writes at most `size` (at least 1) bytes, terminator included, and returns the length that the
// whole text needs, or a negative number. `args` is used up.
int FormatTraceText(char* buffer, size_t size, const char* format, va_list args) KEMD_PRINTF(3, 0);
