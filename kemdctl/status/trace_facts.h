// What the daemon's trace files show about it. They are read while the daemon writes them, so
// nothing in them is trusted: what makes no sense is skipped.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>

// The settings in a file's header.
struct TraceHeader {
    std::optional<long> processId;
    std::optional<long> target;
    std::optional<long> level;
};

struct TraceFileFacts {
    std::string path;
    int error = 0;  // errno when it cannot be read
    int64_t size = 0;
    TraceHeader header;
    std::string oldest;  // time stamps; empty: none found
    std::string newest;
    long cycles = 0;  // of a log: how often it wrapped
};

struct ModuleState {
    std::string stamp;
    std::string state;
};
using ModuleStates = std::map<std::string, ModuleState>;

struct TraceFacts {
    TraceFileFacts log;
    TraceFileFacts startupRing;
    TraceFileFacts runtimeRing;
    TraceFileFacts startupArchive;
    ModuleStates modules;  // since the start that the log begins with
    std::string
        ringFailure;  // why there is no ring buffer, as the log says; empty: it says nothing
    bool isSwitchingRing = false;  // at the end of start-up no ring buffer is open for a while

    // The ring whose header the process wrote; else the run-time ring, or the one that is there.
    [[nodiscard]] const TraceFileFacts& Ring(pid_t daemon) const;
    // Of which file the newest record is; null when there is none.
    [[nodiscard]] const TraceFileFacts* Newest() const;
    // One that is there and cannot be read; null: all can be.
    [[nodiscard]] const TraceFileFacts* Unreadable() const;
};
TraceFacts ReadTrace(const std::string& directory);

// When a record was written, if the daemon's time zone is that of this process.
std::optional<time_t> TimeOfStamp(const std::string& stamp);
