// The command line of kemdctl performance.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kemdctl/ui/command.h"

inline constexpr const char* kHistoryPath = "/var/lib/kemd/performance/history";

enum class ExportForm : uint8_t { kNone, kCsv, kJsonLines, kOpenMetrics, kHtml };

// Pointers into the command line, which outlives it. Times are nanoseconds since 1970.
struct PerformanceOptions {
    const char* file = nullptr;      // a history that was named; null: the one of this host
    std::vector<std::string> words;  // after the subcommand: patterns of series, or a time
    std::optional<int64_t> since;
    std::optional<int64_t> until;
    std::optional<int64_t> step;
    bool asJson = false;
    bool plots = false;
    ExportForm form = ExportForm::kNone;
    const char* html = nullptr;       // the file of the page
    std::vector<std::string> traces;  // files and directories of `around` and of the page
    std::optional<uint64_t> last;     // records of `around`
    std::optional<int64_t> period;    // of `live`
    bool once = false;
    bool hasProcesses = false;
    int64_t now = 0;

    [[nodiscard]] const char* Path() const { return file != nullptr ? file : kHistoryPath; }
};

// What an option is for, as a set.
enum PerformanceUse : unsigned {
    kUseShow = 1,
    kUseList = 2,
    kUseSummary = 4,
    kUseAround = 8,
    kUseExport = 16,
    kUseLive = 32,
};

// Takes the values of the options; the words stay. Nothing, after a complaint, when one is not
// understood.
[[nodiscard]] std::optional<PerformanceOptions> ParsePerformanceOptions(CommandLine& line);
// Whether all options are for this subcommand; complains if not.
[[nodiscard]] bool FitsUse(const CommandLine& line, std::string_view subcommand, unsigned use);
// The part of the help about options.
[[nodiscard]] std::string PerformanceOptionsHelp();

// A time as `kemdctl trace` takes it; complains when it is none.
[[nodiscard]] std::optional<int64_t> ParseMoment(std::string_view text, int64_t now);
