// Tables for people: columns as wide as their longest cell.
#pragma once

#include <concepts>
#include <string>
#include <utility>
#include <vector>

class ReportWriter;

struct Cell {
    template <std::convertible_to<std::string> Text>
    Cell(Text&& shown, const char* code = "")  // NOLINT(google-explicit-constructor)
        : text(std::forward<Text>(shown)), color(code) {}
    std::string text;   // printable
    const char* color;  // what switches it on at a terminal, as "32"; empty: none
};
using TableRow = std::vector<Cell>;

// All rows have the same number of cells, the first is the heading. Colors appear only where
// TerminalHasColor says so.
void ShowTable(ReportWriter& report, const std::vector<TableRow>& rows);
