// A view of another process at one moment, from /proc, and the findings: the differences between
// two views of the module's process that matter to a daemon.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Signals as bits: signal N is bit N-1.
using SignalSet = uint64_t;

struct ThreadView {
    std::string name;
    SignalSet blocked = 0;
};

using Processes = std::map<pid_t, std::string>;  // with their names

struct ProcessView {
    bool readable = false;  // if not, everything else is empty
    std::map<pid_t, ThreadView> threads;
    std::map<int, std::string> files;  // descriptors and their targets
    Processes children;                // also those whose parent has ended
    SignalSet ignored = 0;
    SignalSet caught = 0;
    std::string fileModeMask;
    std::string directory;
};

// `process` is a child of the caller.
ProcessView LookAt(pid_t process);

// The children of a process that have not ended.
Processes ChildrenOf(pid_t parent);

using Findings = std::vector<std::string>;

// The symbols that both the module and the daemon export: the loader binds the module's own uses of
// them to the daemon's.
Findings ReplacedSymbols(const char* module);

// Changes during one call or between two. `process` is also the id of the calling thread.
Findings Changes(pid_t process, const ProcessView& before, const ProcessView& after);

// Descriptors and child processes that are there at the end and were not at the beginning.
Findings LeftBehind(const ProcessView& first, const ProcessView& last);
