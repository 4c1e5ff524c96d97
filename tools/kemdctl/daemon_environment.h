// The variables that the daemon was, or will be, started with, and the trace settings that its own
// reader makes of them and of the configuration files.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "tools/kemdctl/daemon_state.h"
#include "trace/trace_config.h"

inline constexpr const char* kDefaultFile = "/etc/default/kemd";

using Variables = std::map<std::string, std::string, std::less<>>;

struct DaemonEnvironment {
    std::string source;  // in words
    Variables variables;
    int error = 0;  // errno when a daemon runs whose environment may not be read

    // Null when the variable is not set.
    [[nodiscard]] const char* Find(std::string_view name) const;
};

// Of the running daemon; of the file when none runs or its environment may not be read.
DaemonEnvironment ReadDaemonEnvironment(const DaemonState& state);

// Reads lines NAME=value, with quotes around a value taken off; comments begin with # or ;. Tells
// of each line that is neither. False, with errno, when the file cannot be read.
bool ReadDefaultFile(Variables& variables, const std::function<void(size_t line)>& badLine);

// What the daemon reads with this environment. Makes the variables that matter those of this
// process.
class TraceSettings : public CDebugTraceConfig {
  public:
    explicit TraceSettings(const DaemonEnvironment& environment);
    // As at its start: the module's own variable for the weight applied.
    [[nodiscard]] bool HasRing() const;
};
