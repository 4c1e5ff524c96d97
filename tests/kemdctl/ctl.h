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

// Whether a command ends with this code, prints exactly this, and complains with this text or, when
// it is empty, not at all.
inline testing::AssertionResult Prints(const std::string& arguments, int code,
                                       const std::string& out, const std::string& complaint = "") {
    const Result result = Ctl(arguments);
    const bool isSilent = result.err.empty();
    if (result.code == code && result.out == out && isSilent == complaint.empty() &&
        Contains(result.err, complaint))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << arguments << " ends with " << result.code << "\n"
                                       << result.out << result.err;
}

struct Call {
    std::string arguments;
    int code;
    std::string out;
    std::string complaint = {};
};

// Each as Prints has it; the arguments are added to those of the command.
inline void ExpectAll(const std::string& command, const std::vector<Call>& calls) {
    for (const Call& call : calls)
        EXPECT_TRUE(Prints(command + call.arguments, call.code, call.out, call.complaint));
}
