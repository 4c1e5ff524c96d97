#include <string>
#include <variant>
#include <vector>

#include "kemdctl/commands.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/trace_files.h"

int RunTrace(CommandLine& line, ReportWriter& report) {
    if (line.Has("--help")) {
        WriteTraceHelp();
        return kYes;
    }
    const std::optional<TraceOptions> options = ParseTraceOptions(line);
    if (!options) return kError;
    report.SetJson(options->form == Form::kJson);
    // What goes into a file is no document here.
    if (options->reportFile != nullptr) report.SetStream();
    if (const auto* ofRuns = std::get_if<RunsReport>(&options->report)) {
        return (*ofRuns)(*options, report);
    }
    const std::vector<std::string> files = ChooseFiles(*options);
    if (files.empty()) return kError;
    if (const auto* ofFiles = std::get_if<FilesReport>(&options->report)) {
        return (*ofFiles)(*options, files, report);
    }
    return ShowRecords(*options, files, report);
}
