#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "kemdctl/check/look_ups.h"
#include "kemdctl/commands.h"
#include "kemdctl/facts/daemon_control.h"
#include "kemdctl/facts/daemon_environment.h"
#include "kemdctl/status/report.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl status [--json]

Shows whether kemd runs and since when, its run mode, who holds its lock, what
its process-id file says, where it traces to and at which level, the newest
record, the modules and their health as the daemon answers, or else as far as
the trace names them, and what is wrong with the trace and its settings.

  --json   results as JSON

Nothing is locked or changed. Any user may ask; what only root can see is named.
Exit status: 0 kemd runs, 3 it does not, 2 error.
)";

// A running daemon that is to trace has a ring buffer mapped.
void CheckTracing(Status& status, const TraceSettings& settings) {
    Findings& findings = status.findings;
    const TraceFacts& trace = status.trace;
    const char* const action = "kemdctl check names the reason; then restart kemd";
    if (!trace.ringFailure.empty()) {
        return findings.Error(
            "tracing failed at the last start of kemd: " + Printable(trace.ringFailure), action);
    }
    if (!status.state.daemon) return;
    if (trace.log.error == ENOENT) {
        findings.Error("kemd runs without its log: " + Printable(trace.log.path) + " is not there",
                       action);
    }
    if (!settings.HasTracing() || trace.isSwitchingRing) return;
    const auto isStarted = HasMapped(status.Pid(), "log.kemd_a");
    if (!isStarted || *isStarted || HasMapped(status.Pid(), "log.kemd_i").value_or(true)) return;
    findings.Error("kemd has no ring buffer, although the settings ask for tracing at level " +
                       std::to_string(settings.TraceLevel()) +
                       ": it could not be made, was deleted, or the settings are newer than the "
                       "start of kemd",
                   action);
}

bool HasModule(const std::string& directory) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (entry.path().extension() == ".so") return true;
    }
    return error && error.value() != ENOENT;  // perhaps
}

std::string NoteOnModules(const Status& status, const std::string& directory) {
    if (const TraceFileFacts* const file = status.trace.Unreadable()) {
        return (status.trace.modules.empty() ? "not known: " : "perhaps not all: ") +
               Printable(file->path) + " cannot be read: " + std::strerror(file->error) +
               (file->error == EACCES ? "; run kemdctl as root" : "");
    }
    if (!status.trace.modules.empty()) return "";
    return HasModule(directory) ? "not named in the trace"
                                : "none is installed; " + InstallModuleAdvice(directory);
}

// Nothing when the daemon does not answer, or not this user.
std::optional<JsonValue> AskModules(const DaemonState& state) {
    constexpr int kSeconds = 3;
    if (!state.daemon) return std::nullopt;
    const ControlAnswer answer = AskDaemon(ControlRequestText("modules"), kSeconds);
    const JsonValue* const modules = answer.result.Find("modules");
    return modules != nullptr ? std::optional(*modules) : std::nullopt;
}

}  // namespace

int RunStatus(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 2> kOptions = {"--json", "--help"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    if (!line.HasOnly(kOptions) || !line.HasNoWords()) {
        Complain("see kemdctl status --help");
        return kError;
    }
    Status status;
    status.state = ReadDaemonState();
    const DaemonEnvironment environment = ReadDaemonEnvironment(status.state);
    UseTimeZone(environment);
    const TraceSettings settings(environment);
    status.traceDirectory = settings.InForce().logDirectory.Get();
    status.traceSource = environment.source;
    status.trace = ReadTrace(status.traceDirectory);
    status.now = time(nullptr);
    status.modules = AskModules(status.state);
    status.moduleNote = NoteOnModules(status, ModuleDirectory(environment));
    CheckTracing(status, settings);
    CheckTraceLimits(status.findings, environment, settings);
    ShowStatus(report, status);
    return status.state.daemon ? kYes : kNotRunning;
}
