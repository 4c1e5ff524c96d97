// What the kernel shows of another process at one moment, and what a daemon would mind about the
// difference between two such views of the module's process.
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
    bool readable = false;  // everything else is empty when it is not
    std::map<pid_t, ThreadView> threads;
    std::map<int, std::string> files;  // descriptors, with what they lead to
    Processes children;                // also those whose parent has ended in between
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

// The symbols that the module shows and the daemon shows too: the loader binds the module's own
// uses of them to the daemon's.
Findings ReplacedSymbols(const char* module);

// What changed during one call, or between two. `process` is also the id of the calling thread.
Findings Changes(pid_t process, const ProcessView& before, const ProcessView& after);

// What is there at the end and was not at the beginning: descriptors and child processes.
Findings LeftBehind(const ProcessView& first, const ProcessView& last);
