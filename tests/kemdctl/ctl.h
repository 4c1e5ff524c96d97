// Runs the real kemdctl.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "tests/world.h"

struct Result {
    int code;
    std::string out;
    std::string err;
};

// The arguments are a shell's; redirections among them win over those of the results.
inline Result Ctl(const std::string& arguments) {
    const std::string command = ">/tmp/out 2>/tmp/err /build/bin/kemdctl " + arguments;
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("/tmp/out"),
            ReadFile("/tmp/err")};
}
