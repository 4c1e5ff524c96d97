#include <string>
#include <vector>

#include "kemdctl/commands.h"
#include "kemdctl/trace/collect.h"
#include "kemdctl/trace/header_report.h"
#include "kemdctl/trace/last_run.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/record_run.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/trace/verify.h"
#include "kemdctl/ui/report.h"

namespace {

// Those that were named, or those of a kept run; empty, and told, when there are none.
std::vector<std::string> ChooseFiles(const TraceOptions& options,
                                     const std::vector<KeptPlace>& kept) {
    if (!options.run) return ListTraceFiles(options.paths, options.follows || options.waitFor);
    if (*options.run <= kept.size()) return FilesIn(kept[*options.run - 1].path);
    Complain("there is no run %llu: runs that are kept: %zu",
             static_cast<unsigned long long>(*options.run), kept.size());
    return {};
}

// As long as no file of a later run is there, the newest one that was kept is the last run.
int RunLastRun(const TraceOptions& options, bool asJson) {
    const std::vector<KeptPlace> kept = ListKept(options.paths).value_or(std::vector<KeptPlace>());
    std::vector<std::string> files = ChooseFiles(options, kept);
    if (files.empty() && !options.run && !kept.empty()) files = FilesIn(kept.front().path);
    return files.empty() ? kError : ShowLastRun(files, kept, asJson);
}

int RunReport(const TraceOptions& options, const std::vector<std::string>& files, bool asJson) {
    switch (options.report) {
        case Report::kHeader:
            return ShowHeaders(files, asJson);
        case Report::kVerify:
            return VerifyFiles(files, asJson);
        case Report::kCollect:
            return CollectFiles(options.reportFile, files, options.isQuiet);
        default:
            return RunRecords(options, files);
    }
}

}  // namespace

int RunTrace(CommandLine& line, ReportWriter& report) {
    report.SetJson(false);  // its JSON is still its own
    if (line.Has("--help")) {
        WriteTraceHelp();
        return kYes;
    }
    const std::optional<TraceOptions> options = ParseTraceOptions(line);
    if (!options) return kError;
    const bool asJson = options->form == Form::kJson;
    if (options->report == Report::kLastRun) return RunLastRun(*options, asJson);
    std::vector<KeptPlace> kept;
    if (options->run || options->report == Report::kListRuns) {
        const auto listed = ListKept(options->paths);
        if (!listed) return kError;
        kept = *listed;
    }
    if (options->report == Report::kListRuns) return ListKeptRuns(kept, asJson);
    const std::vector<std::string> files = ChooseFiles(*options, kept);
    return files.empty() ? kError : RunReport(*options, files, asJson);
}
