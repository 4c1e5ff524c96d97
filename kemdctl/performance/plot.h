// Lines over time in braille characters, of eight dots each; in plain ones where a terminal has no
// others.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "kemdctl/performance/selection.h"

struct PlotFrame {
    HistorySpan span;
    size_t width = 80;       // characters, with the axis
    size_t height = 6;       // lines
    bool isBraille = true;   // otherwise ASCII
    size_t labelWidth = 10;  // of the values beside the axis
};

// The lines of one plot: its vertical axis, and for each dot's time the band from the smallest to
// the largest value. A gap stays empty.
[[nodiscard]] std::vector<std::string> PlotLines(const Column& column,
                                                 std::span<const HistoryPoint> points,
                                                 const PlotFrame& frame);
// The horizontal axis, for all plots of the frame: the marks, then times.
[[nodiscard]] std::vector<std::string> TimeAxisLines(std::span<const Mark> marks,
                                                     const PlotFrame& frame);
// The time of a dot.
[[nodiscard]] int64_t DotLength(const PlotFrame& frame);
// Whether standard output shows braille: by its character set and terminal.
[[nodiscard]] bool ShowsBraille();
