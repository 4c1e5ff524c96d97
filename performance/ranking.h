// What changed most: series ordered by how far a window differs from the time before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "performance/history_reader.h"

struct RankedChange {
    uint32_t series = 0;  // its number in the reader
    double before = 0;    // mean of the time before; of counters the rate
    double during = 0;    // mean of the window
    double extreme = 0;   // the value in the window that is farthest from `before`
    int64_t at = 0;       // when that was, wall clock
    double score = 0;     // distance in units of the usual variation before
};

// At most `most` changes, the largest first; none that usual variation may explain. `before` is the
// time that is taken as usual. Of series that show the same change from several sides there are two
// at most. None, with an Error() of the reader, when it cannot be read.
std::vector<RankedChange> RankChanges(HistoryReader& reader, HistorySpan window, HistorySpan before,
                                      size_t most);
