// Text as the files of the suite have it: the C locale's blanks, and strings that end at a NUL.
#pragma once

#include <algorithm>
#include <string_view>

// As isspace in the C locale.
inline constexpr std::string_view kSpaces = " \t\n\v\f\r";
constexpr bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// A loop, because files are read with it line by line: searching the set takes a call each time.
constexpr std::string_view TrimStart(std::string_view text) {
    size_t start = 0;
    while (start < text.size() && IsSpace(text[start])) ++start;
    return text.substr(start);
}

constexpr std::string_view TrimStart(std::string_view text, std::string_view blanks) {
    return text.substr(std::min(text.find_first_not_of(blanks), text.size()));
}

constexpr std::string_view TrimEnd(std::string_view text, std::string_view blanks = kSpaces) {
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

constexpr std::string_view Trim(std::string_view text, std::string_view blanks = kSpaces) {
    return TrimEnd(TrimStart(text, blanks), blanks);
}

// The first line, without its line feed, is taken out of the text.
constexpr std::string_view TakeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

// The line as a C string shows it: up to its first NUL.
constexpr std::string_view CutAtNul(std::string_view line) {
    return line.substr(0, line.find('\0'));
}
