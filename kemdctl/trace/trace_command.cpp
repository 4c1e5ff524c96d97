#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kemdctl/commands.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/trace_files.h"

namespace {

int Show(const TraceOptions& options, ReportWriter& report) {
    if (const auto* ofRuns = std::get_if<RunsReport>(&options.report)) {
        return (*ofRuns)(options, report);
    }
    const std::vector<std::string> files = ChooseFiles(options);
    if (files.empty()) return kError;
    if (const auto* ofFiles = std::get_if<FilesReport>(&options.report)) {
        return (*ofFiles)(options, files, report);
    }
    return ShowRecords(options, files, report);
}

}  // namespace

int RunTrace(CommandLine& line, ReportWriter& report) {
    if (line.Has("--help")) {
        WriteTraceHelp();
        return kYes;
    }
    if (!line.words.empty() && std::string_view(line.words[0]) == "level") {
        return ShowOrSetLevel(line, report);
    }
    const std::optional<TraceOptions> options = ParseTraceOptions(line);
    if (!options) return kError;
    report.SetJson(options->form == Form::kJson);
    const int result = Show(*options, report);
    // A report that goes into a file leaves its name as the document.
    if (options->reportFile != nullptr) {
        report.Object({}, [&] { report.Text("file", options->reportFile); });
    }
    return result;
}
