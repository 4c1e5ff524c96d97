// Other tools that know a part of the inventory, to compare with.
#pragma once

#include <stdio.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "base/json.h"

inline bool HasPeer(const std::string& program) {
    for (const char* const directory : {"/usr/bin/", "/usr/sbin/", "/sbin/", "/bin/"}) {
        if (access((directory + program).c_str(), X_OK) == 0) return true;
    }
    return false;
}

// What the command of the shell prints on its standard output.
inline std::string PeerText(const std::string& command) {
    FILE* const pipe = popen((command + " 2>/dev/null").c_str(), "r");
    std::string text;
    std::array<char, 65536> piece{};
    for (size_t count = 1; pipe != nullptr && count > 0;) {
        count = fread(piece.data(), 1, piece.size(), pipe);
        text.append(piece.data(), count);
    }
    if (pipe != nullptr) pclose(pipe);
    return text;
}

// Null, and a failure, when it is no JSON.
inline JsonValue PeerJson(const std::string& command) {
    std::string fault;
    const std::optional<JsonValue> value = ParseJson(PeerText(command), fault, 32);
    EXPECT_TRUE(value) << command << ": " << fault;
    return value.value_or(JsonValue());
}

// At the start of a case.
#define NEED_PEER(program) \
    if (!HasPeer(program)) GTEST_SKIP() << "not compared: " << (program) << " is not installed"
