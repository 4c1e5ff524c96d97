// Reading a trace configuration file whole, and listing the directory that holds them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Nanoseconds since the epoch; nothing when there is no such file.
std::optional<int64_t> ModificationTime(const char* path);

// The text of a regular file up to its closing EndOfFile section; nothing when it has none or
// cannot be read whole, memory exhaustion included.
std::optional<std::string> ReadConfigFile(const char* path);

// The names in the directory that contain ".ini", in alphabetical order; nothing when the directory
// cannot be read, or not to its end.
std::optional<std::vector<std::string>> ListConfigFiles();
