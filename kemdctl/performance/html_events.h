// What happened, for the time axis of the page: marks of the history, records of the trace that say
// how the daemon's runs went or that something failed, and crashes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kemdctl/performance/options.h"
#include "performance/history_reader.h"

struct PageEvent {
    int64_t wall = 0;       // nanoseconds since 1970
    const char* kind = "";  // a word of page.js
    int64_t value = 0;      // of a mark
    std::string text;
    bool isImportant = false;  // the time before it is worth every sample
};

// In order of time. `notes` gets what was left out, a line each.
[[nodiscard]] std::vector<PageEvent> CollectEvents(const PerformanceOptions& options,
                                                   HistoryReader& reader, HistorySpan span,
                                                   std::vector<std::string>& notes);
