// What the kernel shows of another process, at one moment.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

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
