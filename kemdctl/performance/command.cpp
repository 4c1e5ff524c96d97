// kemdctl performance: what the host did, from the history that the module performance writes.
#include "kemdctl/performance/command.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "kemdctl/commands.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

struct Subcommand {
    std::string_view name;
    PerformanceUse use;
    int (*run)(const PerformanceOptions& options, ReportWriter& report);
    const char* help;
};

// The first is what a command without one does.
constexpr Subcommand kSubcommands[] = {
    {"show", kUseShow, ShowHistory,
     "  show [SERIES...]     values over time, as a table or with --plot as lines;\n"
     "                       without SERIES: CPU, memory, disks, network, pressure\n"},
    {"live", kUseLive, ShowLive,
     "  live                 the host now, on one screen; h shows the keys\n"},
    {"summary", kUseSummary, Summarize,
     "  summary [SERIES...]  minimum, mean, 50, 95 and 99 %, maximum, and when\n"},
    {"around", kUseAround, ShowAround,
     "  around TIME          what changed most in the two minutes before, with the\n"
     "                       trace of that time; TIME may be last-run: its end\n"},
    {"list", kUseList, ListSeries,
     "  list [SERIES...]     the series of the history: kind, unit, what they are\n"},
    {"export", kUseExport, ExportHistory,
     "  export [SERIES...]   all values, for other programs\n"},
};

void WriteHelp() {
    Write("usage: kemdctl performance [SUBCOMMAND] [OPTION ...]     short: kemdctl perf\n\n");
    for (const Subcommand& each : kSubcommands) Write(each.help);
    Write(
        "\n"
        "SERIES: an id of list, as disk_read_bytes/sda; a name, for all its labels; or\n"
        "a pattern, as 'memory_*' or 'disk_*/sd?'.\n\n");
    Write(PerformanceOptionsHelp());
    Write(
        "\n"
        "The history is written by the module performance while kemd runs; any user may\n"
        "read it. Counters are shown as rates. Exit status: 0 done, 1 no such series, or\n"
        "no samples of that time, 2 an error.\n");
}

}  // namespace

int RunPerformance(CommandLine& line, ReportWriter& report) {
    if (line.Has("--help")) {
        report.SetJson(false);
        WriteHelp();
        return kYes;
    }
    // First, as the value of an option could be taken for a subcommand.
    auto options = ParsePerformanceOptions(line);
    if (!options) return kError;
    const std::string_view usual = options->html != nullptr ? "export" : kSubcommands[0].name;
    const std::string_view name = line.words.empty() ? usual : line.TakeCommand();
    const auto* found = std::find_if(std::begin(kSubcommands), std::end(kSubcommands),
                                     [name](const Subcommand& each) { return each.name == name; });
    if (found == std::end(kSubcommands)) {
        Complain("unknown subcommand %s; see kemdctl performance --help", Printable(name).c_str());
        return kError;
    }
    if (!FitsUse(line, found->name, found->use)) return kError;
    options->words.assign(line.words.begin(), line.words.end());
    const int status =
        options->html != nullptr ? WritePage(*options, report) : found->run(*options, report);
    return HasReadFailed() ? kError : status;
}
