// One line of a trace file taken apart. The views point into the line.
#pragma once

#include <optional>
#include <string_view>

struct TraceLine {
    std::string_view stamp;  // "2026-11-21 17:55:50.774", local time
    std::string_view text;   // from the tag on
};
// Nothing for what does not begin with a record's prefix, and for the lines that fill a ring.
std::optional<TraceLine> ParseTraceLine(std::string_view line);

// What the switch library says about one of its modules.
struct ModuleNote {
    std::string_view name;
    std::string_view state;
};
std::optional<ModuleNote> ParseModuleNote(std::string_view text);
