// The variables that the daemon was, or will be, started with, and the trace settings that it reads
// from them and from the configuration files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "kemdctl/facts/daemon_state.h"
#include "trace/trace_config.h"

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

// What a daemon that this process starts would have: its own variables, and those of the file where
// it has none.
DaemonEnvironment ReadOwnEnvironment();

// Sets this process's time zone to the daemon's.
void UseTimeZone(const DaemonEnvironment& environment);

// Reads lines NAME=value and removes quotes around a value; comments begin with # or ;. Calls
// `badLine` for each line that is neither. False, with errno, when the file cannot be read.
bool ReadDefaultFile(Variables& variables, const std::function<void(size_t line)>& badLine);

// Where the reference switch library looks for modules, and how to install one.
std::string ModuleDirectory(const DaemonEnvironment& environment);
std::string InstallModuleAdvice(const std::string& directory);

// What the daemon reads with this environment. Sets the variables that matter in this process.
class TraceSettings : public CDebugTraceConfig {
  public:
    explicit TraceSettings(const DaemonEnvironment& environment);

    // Of log and rings.
    [[nodiscard]] std::string Directory() const;
    // Bytes of the run-time ring buffer, 0 for none.
    [[nodiscard]] int64_t RingSize() const { return m_ringSize; }
    // Whether the daemon refuses it.
    [[nodiscard]] bool IsRingTooLarge() const { return m_ringSize > INT32_MAX / kStartupFactor; }
    // Whether the daemon is to trace, and can.
    [[nodiscard]] bool HasTracing() const {
        return TraceLevel() != 0 && m_ringSize != 0 && !IsRingTooLarge();
    }
    // The most bytes that the files of one run take: the start-up ring buffer, its compressed copy
    // or the run-time ring buffer, and the log.
    [[nodiscard]] uint64_t SpaceNeeded() const;

    static constexpr int64_t kStartupFactor = 4;  // of the start-up ring buffer's size

  private:
    int64_t m_ringSize;
};
