// The command line of kemdctl trace.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kemdctl/trace/filter.h"
#include "kemdctl/ui/command.h"

enum class Form : uint8_t { kFull, kShort, kJson, kCsv };
enum class ColorMode : uint8_t { kAuto, kAlways, kNever };
// In place of the records; kExport, kHtml and kCollect into a file.
enum class Report : uint8_t {
    kNone,
    kHeader,
    kVerify,
    kLastRun,
    kListRuns,
    kCollect,  // of whole files
    kCount,
    kStats,
    kExport,
    kHtml,  // of the chosen records
};

// Views and pointers into the command line, which outlives it.
struct TraceOptions {
    std::vector<std::string> paths;  // files and directories as they were named
    std::optional<uint64_t> run;     // a kept one, of which they are; 1 is the newest
    bool isHelp = false;
    bool isRaw = false;
    bool isQuiet = false;
    bool follows = false;
    bool fromStart = false;
    Choice choice;
    std::optional<uint64_t> last;
    std::optional<Pattern> waitFor;
    std::optional<int64_t> timeout;  // milliseconds
    Form form = Form::kFull;
    ColorMode color = ColorMode::kAuto;
    bool mayPage = true;
    bool showsDelta = false;
    std::optional<int64_t> gap;  // milliseconds
    Report report = Report::kNone;
    const char* reportFile = nullptr;
};

// Takes the words out of the line. Nothing, and a message, when one is not understood.
[[nodiscard]] std::optional<TraceOptions> ParseTraceOptions(CommandLine& line);
void WriteTraceHelp();
