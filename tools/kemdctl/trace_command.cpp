#include "tools/kemdctl/trace_command.h"

#include <string>
#include <vector>

#include "tools/kemdctl/trace/collect.h"
#include "tools/kemdctl/trace/header_report.h"
#include "tools/kemdctl/trace/last_run.h"
#include "tools/kemdctl/trace/options.h"
#include "tools/kemdctl/trace/record_run.h"
#include "tools/kemdctl/trace/trace_files.h"
#include "tools/kemdctl/trace/verify.h"

int RunTrace(CommandLine& line) {
    if (line.Has("--help")) {
        WriteTraceHelp();
        return kYes;
    }
    const std::optional<TraceOptions> options = ParseTraceOptions(line);
    if (!options) return kError;
    const bool mayCome = options->follows || options->waitFor;
    const std::vector<std::string> files = ListTraceFiles(options->paths, mayCome);
    if (files.empty()) return kError;
    const bool asJson = options->form == Form::kJson;
    switch (options->report) {
        case Report::kHeader:
            return ShowHeaders(files, asJson);
        case Report::kVerify:
            return VerifyFiles(files, asJson);
        case Report::kLastRun:
            return ShowLastRun(files, asJson);
        case Report::kCollect:
            return CollectFiles(options->reportFile, files);
        default:
            return RunRecords(*options, files);
    }
}
