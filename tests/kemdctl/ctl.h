// Runs the real kemdctl.
#pragma once

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/world.h"

struct Result {
    int code;
    std::string out;
    std::string err;
};

// The arguments go through a shell; a redirection among them overrides the one for the result.
inline Result Ctl(const std::string& arguments, const std::string& before = "") {
    const std::string command = before + " >/tmp/out 2>/tmp/err /build/bin/kemdctl " + arguments;
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("/tmp/out"),
            ReadFile("/tmp/err")};
}

// Whether a text holds all parts, in any order, and none of the others.
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

// The exit status of work in a child process.
template <typename Work>
int InChild(Work work) {
    const pid_t child = fork();
    if (child == 0) _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
}

// What a terminal, perhaps of a certain width, gets from this shell command.
inline std::string OnTerminal(const std::string& command, unsigned short width = 0) {
    int terminal = -1;
    const struct winsize size = {25, width, 0, 0};
    const pid_t process = forkpty(&terminal, nullptr, nullptr, width > 0 ? &size : nullptr);
    if (process == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    std::string shown, part(4096, '\0');
    for (ssize_t got = 0; (got = read(terminal, part.data(), part.size())) > 0;) {
        shown.append(part, 0, static_cast<size_t>(got));
    }
    EXPECT_EQ(process, waitpid(process, nullptr, 0));
    close(terminal);
    return shown;
}

// Whether a command ends with this code and shows these parts in this order: first its results,
// then its complaints.
inline testing::AssertionResult Shows(const std::string& arguments, int code,
                                      const std::vector<std::string>& parts = {}) {
    const Result result = Ctl(arguments);
    if (result.code == code) return InOrder(result.out + result.err, parts);
    return testing::AssertionFailure() << arguments << " ends with " << result.code << "\n"
                                       << result.out << result.err;
}

// Whether a command ends with this code, prints exactly this, and complains with this text, or not
// at all when the text is empty.
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

// Checks each call with Prints; its arguments follow the command.
inline void ExpectAll(const std::string& command, const std::vector<Call>& calls) {
    for (const Call& call : calls)
        EXPECT_TRUE(Prints(command + call.arguments, call.code, call.out, call.complaint));
}
