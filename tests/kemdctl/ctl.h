// Runs the real kemdctl.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/world.h"

struct Result {
    int code;
    std::string out;
    std::string err;
};

// The arguments are a shell's; redirections among them win over those of the results.
inline Result Ctl(const std::string& arguments, const std::string& before = "") {
    const std::string command = before + " >/tmp/out 2>/tmp/err /build/bin/kemdctl " + arguments;
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("/tmp/out"),
            ReadFile("/tmp/err")};
}

// Whether a text holds all of these, in any order, and none of those.
inline testing::AssertionResult Holds(const std::string& text,
                                      const std::vector<std::string>& parts,
                                      const std::vector<std::string>& others = {}) {
    for (const std::string& part : parts) {
        if (!Contains(text, part))
            return testing::AssertionFailure() << part << " not in\n" << text;
    }
    for (const std::string& other : others) {
        if (Contains(text, other))
            return testing::AssertionFailure() << other << " is in\n" << text;
    }
    return testing::AssertionSuccess();
}

// Whether a command ends with this code and shows all of these, in this order, first its results.
inline testing::AssertionResult Shows(const std::string& arguments, int code,
                                      const std::vector<std::string>& parts = {}) {
    const Result result = Ctl(arguments);
    if (result.code == code) return InOrder(result.out + result.err, parts);
    return testing::AssertionFailure() << arguments << " ends with " << result.code << "\n"
                                       << result.out << result.err;
}
