// What /proc shows to any user about processes, and which of them is the daemon. Nothing here
// fails: what cannot be read is left out.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

struct ProcessFacts {
    pid_t pid = 0;
    pid_t parent = 0;
    bool isRoots = false;      // its real and its effective user are root
    bool isAlive = false;      // a zombie is not
    bool isVisible = false;    // false: /proc hides it, and all below is unknown
    bool isContained = false;  // has process ids of its own, as in a container
    std::string name;
    std::optional<time_t> started;
    std::vector<std::string> arguments;
};

ProcessFacts ReadProcess(pid_t pid);
// A living process of root with the daemon's name that belongs to this system.
bool IsDaemon(const ProcessFacts& process);

std::vector<pid_t> ListProcesses();
// The oldest process with the daemon's name that is not a child of another one; 0: none.
pid_t FindDaemon();

// Whether a file of this name is mapped into the process; nothing when this may not be seen.
std::optional<bool> HasMapped(pid_t pid, const std::string& name);

// The variables NAME=value that the process was started with; nothing, with errno, when they may
// not be read.
std::optional<std::vector<std::string>> ReadProcessEnvironment(pid_t pid);
