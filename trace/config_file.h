// Trace configuration files: the directory that holds them, a file whole, and sections and keys in
// its text. What looks into a text is a pure function over one buffer; the views that it returns
// point into it.
//
// The form is deliberately loose: a key is found as a substring of its section, wherever it stands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Nanoseconds since the epoch; nothing when there is no such file.
std::optional<int64_t> ModificationTime(const char* path);

// The text of a regular file up to its closing EndOfFile section; nothing when it has none or
// cannot be read whole, memory exhaustion included.
std::optional<std::string> ReadConfigFile(const char* path);

// The names in the directory that contain ".ini", in alphabetical order; nothing when the directory
// cannot be read, or not to its end.
std::optional<std::vector<std::string>> ListConfigFiles();

// The file's text up to its last closing bracket when its last section is named EndOfFile (in any
// case); nothing when the file is to be ignored.
std::optional<std::string_view> AcceptConfigText(std::string_view file);

// The text after the header of the first section of that name (in any case), up to the next
// opening bracket or the end.
std::optional<std::string_view> FindConfigSection(std::string_view text, std::string_view name);

// The value of a key (case matters): what follows the first equals sign after the key's
// first occurrence, without leading white space, up to the line end, at most `limit` bytes.
std::optional<std::string_view> FindConfigValue(std::string_view section, std::string_view key,
                                                size_t limit);

// A number in C notation (decimal, 0x, leading 0), cut to 32 bits; `fallback` when the key is
// absent.
int32_t FindConfigNumber(std::string_view section, std::string_view key, int32_t fallback);
