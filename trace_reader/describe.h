// What was found in a trace file, in one line.
#pragma once

#include <string>

#include "trace_reader/trace_source.h"

// "ring, 1234 records read, 2026-11-15 20:04:51.123 to ..., wrapped, process 123 writes it". To be
// called when all records were read; what SeekTime skipped is not in it. Holds nothing that comes
// from the file unchecked.
[[nodiscard]] std::string Describe(const SourceFacts& facts);
