#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "kemdctl/check/look_ups.h"
#include "kemdctl/commands.h"
#include "kemdctl/ui/json.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl check [-q] [--json]

Looks for what keeps kemd from working as meant: trace configuration, variables,
directories and room on their disks, switch library and modules, registry, and
files left over. Each line has a severity, what was found, and after "--" what
to do about it.

  -q, --quiet   only what is to be mended
  --json        results as JSON

Nothing is changed, no lock is taken, no library or module is loaded.
Exit status: 0 nothing to be mended, 1 findings, 2 error, or something could not
be looked at (run it as root).
)";

void ShowText(const Findings& findings, bool isQuiet) {
    for (const Finding& finding : findings.All()) {
        if (isQuiet && finding.severity == Severity::kOk) continue;
        std::string line = Name(finding.severity);
        line.resize(9, ' ');
        line += finding.what;
        if (!finding.action.empty()) line += " -- " + finding.action;
        Write(line + "\n");
    }
}

void ShowJson(const Findings& findings, bool isQuiet) {
    JsonWriter json;
    json.Open('[');
    for (const Finding& finding : findings.All()) {
        if (isQuiet && finding.severity == Severity::kOk) continue;
        ShowAsJson(json, finding);
    }
    json.Close(']');
    json.Finish();
}

}  // namespace

const char* Name(Severity severity) {
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kWarning:
            return "warning";
        case Severity::kError:
            return "error";
    }
    return "";
}

void ShowAsJson(JsonWriter& json, const Finding& finding) {
    json.Open('{');
    json.Key("severity");
    json.Text(Name(finding.severity));
    json.Key("what");
    json.Text(finding.what);
    json.Key("action");
    json.Text(finding.action);
    json.Close('}');
}

void Findings::CannotLook(const std::string& path, int error) {
    m_isComplete = false;
    Complain("cannot look at %s: %s%s", Printable(path).c_str(),
             error == EINVAL ? "no regular file" : std::strerror(error),
             error == EACCES || error == EPERM ? "; run kemdctl as root" : "");
}

void Findings::Add(Severity severity, std::string what, std::string action) {
    const bool isKnown = std::any_of(m_all.begin(), m_all.end(),
                                     [&what](const Finding& each) { return each.what == what; });
    if (!isKnown) m_all.push_back({severity, std::move(what), std::move(action)});
}

bool Findings::IsClean() const {
    return std::all_of(m_all.begin(), m_all.end(),
                       [](const Finding& finding) { return finding.severity == Severity::kOk; });
}

int RunCheck(CommandLine& line, ReportWriter& report) {
    report.SetJson(false);  // its JSON is still its own
    constexpr std::array<std::string_view, 4> kOptions = {"-q", "--quiet", "--json", "--help"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    if (!line.HasOnly(kOptions) || !line.HasNoWords()) {
        Complain("see kemdctl check --help");
        return kError;
    }
    const DaemonState state = ReadDaemonState();
    const DaemonEnvironment environment = ReadDaemonEnvironment(state);
    Findings findings;
    if (environment.error != 0) findings.CannotLook("kemd's environment", environment.error);
    CheckTraceConfig(findings, environment);
    CheckDirectories(findings, environment);
    CheckSwitchLibrary(findings, environment);
    CheckModules(findings, environment);
    CheckRegistryFiles(findings);
    CheckLeftovers(findings, state);
    const bool isQuiet = line.Has("-q") || line.Has("--quiet");
    if (line.Has("--json")) {
        ShowJson(findings, isQuiet);
    } else {
        ShowText(findings, isQuiet);
    }
    if (!findings.IsComplete()) return kError;
    return findings.IsClean() ? kYes : kNo;
}
