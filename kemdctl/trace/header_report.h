// kemdctl trace --header: what a trace file says about the process that wrote it.
#pragma once

#include <string>
#include <vector>

#include "trace_reader/trace_source.h"

struct HeaderEntry {
    std::string section;  // "Orvana Environment"
    std::string name;
    std::string value;
};
// The header of an open source as it stands in the file; empty when it has none. Reads the source
// from its start; it is to be rewound before it is used for something else.
[[nodiscard]] std::vector<HeaderEntry> ReadHeader(TraceSource& source);

// One line for each entry, "NAME  VALUE", printable, below the names of its sections.
[[nodiscard]] std::string FormatHeader(const std::vector<HeaderEntry>& entries);
