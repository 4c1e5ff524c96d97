// The command line of kemdctl trace.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kemdctl/trace/filter.h"
#include "kemdctl/ui/command.h"

enum class Form : uint8_t { kFull, kShort, kJson, kCsv };
enum class ColorMode : uint8_t { kAuto, kAlways, kNever };
struct TraceOptions;
class RecordSink;
class ReportWriter;

// In place of the records: of whole files, of whole runs, whose files the report finds itself, or
// of the chosen records. See reports.h.
using FilesReport = int (*)(const TraceOptions&, const std::vector<std::string>&, ReportWriter&);
using RunsReport = int (*)(const TraceOptions&, ReportWriter&);
using RecordsReport = std::unique_ptr<RecordSink> (*)(const TraceOptions&, ReportWriter&);
using TraceReport = std::variant<std::monostate, FilesReport, RunsReport, RecordsReport>;

// Views and pointers into the command line, which outlives it.
struct TraceOptions {
    std::vector<std::string> paths;  // files and directories as they were named
    std::optional<uint64_t> run;     // a kept one, of which they are; 1 is the newest
    bool isHelp = false;
    bool isRaw = false;
    bool isQuiet = false;
    bool follows = false;
    bool fromStart = false;
    Filter filter;
    std::optional<uint64_t> last;
    std::optional<Pattern> waitFor;
    std::optional<int64_t> timeout;  // milliseconds
    Form form = Form::kFull;
    ColorMode color = ColorMode::kAuto;
    bool mayPage = true;
    bool showsDelta = false;
    std::optional<int64_t> gap;  // milliseconds
    TraceReport report;
    const char* reportFile = nullptr;  // of a report that goes into a file
};

// Takes the words out of the line. Nothing, and a message, when one is not understood.
[[nodiscard]] std::optional<TraceOptions> ParseTraceOptions(CommandLine& line);
void WriteTraceHelp();
