#include "tools/kemdctl/status_command.h"

#include <array>
#include <ctime>

#include "tools/kemdctl/daemon_environment.h"
#include "tools/kemdctl/status_report.h"

constexpr const char* kHelp =
    R"(usage: kemdctl status [--json]

Shows whether kemd runs and since when, its run mode, who holds its lock, what
its process-id file says, where it traces to and at which level, the newest
record, and the modules as far as the trace names them.

Nothing is locked or changed. Everybody may ask; what only root can see is said.
Exit status: 0 kemd runs, 3 it does not, 2 error.
)";

int RunStatus(CommandLine& line) {
    constexpr std::array<std::string_view, 2> kOptions = {"--json", "--help"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    if (!line.HasOnly(kOptions) || !line.words.empty()) {
        Complain("see kemdctl status --help");
        return kError;
    }
    Status status;
    status.state = ReadDaemonState();
    const DaemonEnvironment environment = ReadDaemonEnvironment(status.state);
    status.traceDirectory = TraceSettings(environment).InForce().logDirectory.Get();
    status.traceSource = environment.source;
    status.trace = ReadTrace(status.traceDirectory);
    status.now = time(nullptr);
    if (line.Has("--json")) {
        ShowStatusAsJson(status);
    } else {
        ShowStatus(status);
    }
    return status.state.daemon ? kYes : kNotRunning;
}
