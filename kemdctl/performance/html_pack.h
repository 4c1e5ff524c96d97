// The values of one series as the page has them: a base64 text for each part of the time. Pure.
//
// Values are whole numbers q. Of a gauge: value = low + q * quantum; of a counter's rate:
// value = (e^(q / quantum) - 1) * low. That keeps a gauge to 1/4095 of its range, and of a rate
// three digits of whatever it is.
//
// A part is a column of numbers, one for each step: the means. The one that covers the whole time
// has two more, how far minimum and maximum are from the mean, unless its steps are single samples.
// A column is a row of numbers of 7 bits a byte, the lowest first, 0x80 in all but the last:
//   0 N  the value before stays for N steps      1 N  N steps without a value
//   M    M - 2 is the value, or of means the difference to the value before: 2 n, or -2 n - 1
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "performance/history_reader.h"
#include "performance/series.h"

// `count` steps from `from` on, in nanoseconds. A fine part has single samples.
struct PagePart {
    int64_t from = 0;
    int64_t step = 0;
    uint32_t count = 0;
    bool isFine = false;
};

struct PackedSeries {
    bool isLogarithmic = false;
    double low = 0;
    double quantum = 1;
    double high = 0;                 // the greatest value there is
    bool isEmpty = true;             // no value in any part
    std::vector<std::string> parts;  // one for each part; empty: no value
};

// `points`: those of each part.
[[nodiscard]] PackedSeries PackSeries(const SeriesInfo& info, std::span<const PagePart> parts,
                                      std::span<const std::vector<HistoryPoint>> points);
