// What the switch library says in the trace about one of its modules.
#pragma once

#include <optional>
#include <string_view>

#include "trace_reader/record.h"

// Views into the record.
struct ModuleNote {
    std::string_view name;
    std::string_view state;
};
// Nothing for all other records.
[[nodiscard]] std::optional<ModuleNote> ParseModuleNote(const TraceRecord& record);
