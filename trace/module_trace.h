// Where the functions of kemd/trace.h write: to the trace object, unless a program that loads
// modules without being the daemon redirects them.
#pragma once

#include <cstdarg>

// Writes one record or message of any thread. `tag` may be null.
using ModuleTraceWriter = void (*)(const char* tag, const char* format, va_list args);

// Sends every message, and the records up to `level` (0: none), to `write`. Call it before the
// first module is loaded.
void RedirectModuleTrace(ModuleTraceWriter write, unsigned level);
