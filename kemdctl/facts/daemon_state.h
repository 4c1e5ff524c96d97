// Whether the daemon runs: lock file, process-id file and processes brought together.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kemdctl/facts/lock_facts.h"
#include "kemdctl/facts/process_facts.h"

struct PidFileFacts {
    bool exists = false;
    int error = 0;         // errno when it cannot be read
    ProcessFacts process;  // that it names; pid 0: it names none
};

struct DaemonState {
    LockFacts lock;
    PidFileFacts pidFile;
    std::optional<ProcessFacts> daemon;  // nothing: it does not run

    [[nodiscard]] bool IsHolder(pid_t pid) const;
    // Of the lock: the daemon, if it is among the holders; 0: not known.
    [[nodiscard]] pid_t Holder() const;
};
DaemonState ReadDaemonState();
// Without a look at all processes for the holder of the lock, in most cases the same daemon: for
// what only helps, as its time zone.
DaemonState ReadDaemonBriefly();

// What the two files say, in words, without the file's name.
std::string DescribeLock(const DaemonState& state);
std::string DescribePidFile(const DaemonState& state);

// How the daemon was started.
struct RunOptions {
    int mode = 0;
    std::string_view modeName = "normal";
    bool isForeground = false;
    bool isRescan = false;
};
RunOptions ReadRunOptions(const ProcessFacts& daemon);
