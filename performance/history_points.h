// What a reader of the history gives: points in a span of time.
#pragma once

#include <cstdint>

// Values of one series in one step of time. A gauge: its values. A counter: `minimum`, `mean` and
// `maximum` are rates, units per second between two samples, so that a minute knows its busiest
// second; `last` is the counter itself. A sample of a counter that has no sample before it in the
// same boot, or is less than that one, has no rate and therefore no point.
struct HistoryPoint {
    int64_t wall = 0;  // the end of the step, in nanoseconds since 1970
    double minimum = 0;
    double mean = 0;
    double maximum = 0;
    double last = 0;
};

struct HistorySpan {
    int64_t from = 0;  // wall clock, inclusive
    int64_t to = 0;    // exclusive
};
