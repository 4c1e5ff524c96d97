// Where the last run of the daemon begins in the trace.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "trace_reader/record.h"

// What the first record of a run is recognised by.
struct RunStart {
    int64_t time;
    uint32_t thread;
    [[nodiscard]] bool IsAt(const TraceRecord& record) const;
};
// Reads all these files. Nothing when no start is in them.
[[nodiscard]] std::optional<RunStart> FindLastStart(const std::vector<std::string>& files);
