// The screen of `kemdctl performance live`: lines made of values, for any size. Pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kemdctl/performance/live_tables.h"

// What the user chose.
struct LiveState {
    bool isPaused = false;
    bool showsHelp = false;
    bool isTyping = false;  // the filter
    std::string filter;     // rows whose name has it, in any case
    size_t alone = 0;       // the number of the section that has the whole screen; 0: all have some
    size_t sort = 0;        // 0: the busiest first; 1: by name; then the columns of the one section
    size_t scroll = 0;      // rows of the one section that are above the screen
    bool hasProcesses = false;
};

struct LiveSize {
    size_t columns = 80;
    size_t rows = 0;  // 0: as many as it takes
    bool hasColor = false;
};

[[nodiscard]] std::vector<std::string> LiveLines(const LiveFacts& facts, const LiveState& state,
                                                 const LiveSize& size);
// Numbers of columns by which section `state.alone` can be sorted.
[[nodiscard]] size_t SortCount(const LiveState& state);
