// What kemdctl status has found, and how it is shown.
#pragma once

#include <optional>
#include <string>

#include "base/json.h"
#include "kemdctl/check/findings.h"
#include "kemdctl/facts/daemon_state.h"
#include "kemdctl/status/trace_facts.h"

struct Status {
    DaemonState state;
    Findings findings;  // what is wrong with the trace
    // As the daemon answers; nothing when it cannot be asked: then the trace names them.
    std::optional<JsonValue> modules;
    // Why the list of modules is empty or not complete.
    std::string moduleNote;
    std::string traceDirectory;
    std::string traceSource;  // where the variables that decide on it come from
    TraceFacts trace;
    time_t now = 0;

    // Of the running daemon, or 0.
    [[nodiscard]] pid_t Pid() const { return state.daemon ? state.daemon->pid : 0; }
    [[nodiscard]] const TraceFileFacts& Ring() const { return trace.Ring(Pid()); }
};

class ReportWriter;
void ShowStatus(ReportWriter& report, const Status& status);
