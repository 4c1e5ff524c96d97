// The sections of the screen of `kemdctl performance live`: tables of the devices. Pure.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kemdctl/performance/live_values.h"

inline constexpr size_t kLiveSections = 7;

// What is known at one moment.
struct LiveFacts {
    std::string host;
    std::string time;
    std::string period;
    LiveValues values;
    std::vector<LiveModuleSeries> modules;
    std::string processes;  // lines of Sampler::Processes
};

struct LiveColumn {
    const char* heading;
    size_t width;
};
struct LiveTableRow {
    std::string name;
    std::vector<std::string> cells;
    std::vector<double> values;  // what the cells show, for sorting
    double activity = 0;
    double alert = 0;  // 0 to 1: how near a limit it is
};
struct LiveTable {
    const char* title = "";
    std::vector<LiveColumn> columns;
    std::vector<LiveTableRow> rows;
};

// Section `number`, from 1 on, with all its rows, unsorted.
[[nodiscard]] LiveTable MakeTable(size_t number, const LiveFacts& facts);
// How busy each processor is, 0 to 1, in their order; NaN where that is not known.
[[nodiscard]] std::vector<LiveRow> ProcessorsBusy(const LiveValues& values);

// "34%", and "-" for what is no number.
[[nodiscard]] std::string PercentText(double share);
[[nodiscard]] std::string BytesText(double bytes, bool isRate);
