#include <array>

#include "kemdctl/check/look_ups.h"
#include "kemdctl/commands.h"
#include "kemdctl/ui/report.h"

namespace {

struct LookUp {
    const char* name;
    const char* object;  // what it looks at
    void (*look)(Findings& findings, const DaemonFacts& daemon);
};
constexpr LookUp kLookUps[] = {
    {"trace", "trace configuration, variables, sizes of log and ring buffers", CheckTraceConfig},
    {"directories", "owner and mode, and room on their file systems", CheckDirectories},
    {"switch", "where the switch library is found, its exports, who may change it",
     CheckSwitchLibrary},
    {"modules", "the files in the module directory, in the same way", CheckModules},
    {"registry", "the registry and the default that it is restored from", CheckRegistryFiles},
    {"leftovers", "lock file, process-id file and run-level file", CheckLeftovers},
};

constexpr const char* kHelp =
    R"(usage: kemdctl check [-q] [--json]

Looks for what keeps kemd from working as meant:

)";
constexpr const char* kHelpEnd =
    R"(
Each line has a severity, what was found, and after "--" what to do about it.

  -q, --quiet   only warnings and errors
  --json        results as JSON

Nothing is changed, no lock is taken, no library or module is loaded.
Exit status: 0 all is well, 1 warnings or errors, 2 a failure, or something
could not be looked at (run it as root).
)";

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

void WriteHelp() {
    Write(kHelp);
    for (const LookUp& each : kLookUps) {
        Write("  " + Padded(each.name, 14) + each.object + "\n");
    }
    Write(kHelpEnd);
}

std::string TextOf(const Finding& finding) {
    return Padded(Name(finding.severity), 9) + finding.what +
           (finding.action.empty() ? "" : " -- " + finding.action);
}

}  // namespace

int RunCheck(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 4> kOptions = {"-q", "--quiet", "--json", "--help"};
    if (line.Has("--help")) {
        WriteHelp();
        return kYes;
    }
    if (!line.HasOnly(kOptions) || !line.HasNoWords()) {
        Complain("see kemdctl check --help");
        return kError;
    }
    DaemonFacts daemon;
    daemon.state = ReadDaemonState();
    daemon.environment = ReadDaemonEnvironment(daemon.state);
    Findings findings;
    if (const int error = daemon.environment.error; error != 0) {
        findings.CannotLook("kemd's environment", error);
    }
    for (const LookUp& each : kLookUps) each.look(findings, daemon);
    const std::vector<Finding> problems = findings.Problems();
    const bool isQuiet = line.Has("-q") || line.Has("--quiet");
    report.List({}, isQuiet ? problems : findings.All(), [&report](const Finding& finding) {
        finding.Put(report);
        report.Line([&finding] { return TextOf(finding); });
    });
    if (!findings.IsComplete()) return kError;
    return problems.empty() ? kYes : kNo;
}
