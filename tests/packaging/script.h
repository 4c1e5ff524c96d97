// Runs a command of the private root's shell.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/world.h"

// An executable in place of a command.
inline void WriteProgram(const std::string& path, const std::string& lines) {
    WriteFile(path, "#!/bin/sh\n" + lines + "\n");
    std::filesystem::permissions(path, std::filesystem::perms(0755));
}

// The exit status; both outputs in /tmp/output.
inline int Shell(const std::string& command) {
    const int status = std::system((command + " >/tmp/output 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline std::string Output() {
    return ReadFile("/tmp/output");
}
