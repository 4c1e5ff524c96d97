// What the tests of several areas share: files of the private root, text checks, and waiting for
// something that another process or thread does.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// Empty when there is no such file.
inline std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Makes the file's directories too.
inline void WriteFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Tracing at this level into ring buffers of 4 and 1 MiB, without the memory column: asking for it
// 4,096 times at each start takes seconds in a sanitized build.
inline void ConfigureTrace(int level) {
    WriteFile("/etc/norvik/OrvanaSuite/TraceConfig/kemd.ini",
              "[kemd]\nFileDebugLevel = " + std::to_string(level) +
                  "\nRingBufferSizeFactor = 1\nRingBufferSizeWeight = 1\nMemoryTracesFlag = 0\n"
                  "[EndOfFile]\n");
}

// What a ring-buffer file holds before the newest trailer. Valid until the ring wraps. Tests that
// wait for a record read it again and again: they leave out the megabytes that follow, which are
// lines of "_".
inline std::string RingText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    std::array<char, 16384> piece{};
    while (!text.ends_with("_\n") && (file.read(piece.data(), piece.size()) || file.gcount() > 0)) {
        text.append(piece.data(), static_cast<size_t>(file.gcount()));
    }
    return text.substr(0, text.rfind("## TRACE-END ##\n"));
}

// As find, but one call of the C library: a sanitizer checks each of the comparisons that find
// makes.
inline bool Contains(const std::string& text, const std::string& part) {
    return memmem(text.data(), text.size(), part.data(), part.size()) != nullptr;
}

// Whether the text holds all parts, each after the one before it.
inline testing::AssertionResult InOrder(const std::string& text,
                                        const std::vector<std::string>& parts) {
    size_t position = 0;
    for (const std::string& part : parts) {
        position = text.find(part, position);
        if (position == text.npos) {
            return testing::AssertionFailure()
                   << part << " is not in its place in ...\n"
                   << text.substr(std::max<size_t>(text.size(), 6000) - 6000);
        }
        position += part.size();
    }
    return testing::AssertionSuccess();
}

// Polls until the condition holds; false when it does not within a long while.
template <typename Condition>
[[nodiscard]] bool WaitFor(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (useconds_t pause = 1000; !condition(); pause = std::min(2 * pause, 16000U)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        usleep(pause);
    }
    return true;
}
