// What --stats has counted, and the two ways in which it is shown.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kemdctl/trace/stats_histogram.h"
#include "kemdctl/trace/stats_tally.h"
#include "trace_reader/trace_merge.h"

struct TraceGap {
    int64_t begin;
    int64_t length;  // milliseconds
};

// How fast a file was written, as far as its chosen records tell.
struct RingReach {
    uint64_t bytes = 0;
    int64_t milliseconds = 0;
    uint64_t lastOffset = 0;
    int64_t lastTime = 0;
};
// For how many milliseconds back a ring holds records, whatever was chosen of them, or will once it
// is full. Nothing for other files, and when that cannot be told.
[[nodiscard]] std::optional<int64_t> ReachOf(const RingReach& reach, const TraceSource& source);

struct TraceStats {
    uint64_t records = 0;
    int64_t lowest = INT64_MAX;  // of their times
    int64_t highest = INT64_MIN;
    TimeHistogram histogram;
    Tally threads{4096};
    Tally tags{4096};
    Tally texts{16384};
    std::vector<TraceGap> gaps;    // the longest first
    std::vector<RingReach> reach;  // by number of the source
};

void ShowStats(const TraceStats& stats, const TraceMerge& merge);
void ShowStatsAsJson(const TraceStats& stats, const TraceMerge& merge);
