// The history that a subcommand reads, and the part of it that was asked for.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kemdctl/performance/options.h"
#include "performance/history_reader.h"

class ReportWriter;

// Reports the damaged parts that were met and a failure to read, at the end: some show only when
// values are read.
struct CloseHistory {
    void operator()(HistoryReader* reader) const;
};
using History = std::unique_ptr<HistoryReader, CloseHistory>;

// Whether one that was closed could not be read whole: the status is then an error.
[[nodiscard]] bool HasReadFailed();

// Null after a complaint.
[[nodiscard]] History OpenHistory(const PerformanceOptions& options);

// The time between --since and --until, as far as the history goes. By default it ends with the
// history, and is ten minutes long, or all that there is. Nothing, after a complaint, when the
// history has none of it.
[[nodiscard]] std::optional<HistorySpan> ChooseSpan(const PerformanceOptions& options,
                                                    const HistoryReader& reader, bool isAll);

// Where the history comes from, for people: the host's name and the file, when it was named.
void ShowOrigin(ReportWriter& report, const PerformanceOptions& options,
                const HistoryReader& reader);

// "gap: 12 samples missed", "reboot", "clock set back by 2s": one line, printable.
[[nodiscard]] std::string MarkText(const Mark& mark);
// "gap", "clock-step": for JSON and the page.
[[nodiscard]] const char* MarkWord(MarkKind kind);
// Into an array that is open.
void StateMark(ReportWriter& report, const Mark& mark);
