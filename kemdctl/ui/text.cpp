#include "kemdctl/ui/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>

static unsigned ByteAt(std::string_view text, size_t position) {
    return static_cast<unsigned char>(text[position]);
}

static bool IsPlain(char byte) {
    return byte >= 0x20 && byte < 0x7f;
}

std::string Printable(std::string_view text) {
    std::string shown;
    for (;;) {
        const auto* const plainEnd = std::find_if_not(text.begin(), text.end(), IsPlain);
        shown.append(text.begin(), plainEnd);
        text.remove_prefix(static_cast<size_t>(plainEnd - text.begin()));
        if (text.empty()) return shown;
        const size_t length = Utf8Length(text);
        const unsigned byte = ByteAt(text, 0);
        // One of several bytes is shown byte by byte, as what is left of it is no UTF-8.
        const bool isBad = length == 0 || IsControl(CodePoint(text.substr(0, length)));
        const size_t taken = isBad ? 1 : length;
        if (byte == '\n' || byte == '\r' || byte == '\t') {
            shown += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : "\\t";
        } else if (isBad) {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02x", byte);
            shown += code;
        } else {
            shown += text.substr(0, taken);
        }
        text.remove_prefix(taken);
    }
}

std::string ShellQuoted(std::string_view name) {
    const auto isSafe = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::string_view("/._-+,:@%=").find(c) != std::string::npos;
    };
    if (!name.empty() && std::all_of(name.begin(), name.end(), isSafe)) return std::string(name);
    const bool needsEscapes = Printable(name) != name;
    std::string quoted = needsEscapes ? "$'" : "'";
    for (const char c : name) {
        const unsigned byte = static_cast<unsigned char>(c);
        if (needsEscapes && !IsPlain(c)) {
            char code[8];
            std::snprintf(code, sizeof code, "\\%03o", byte);
            quoted += code;
        } else if (needsEscapes && (c == '\'' || c == '\\')) {
            quoted.append("\\").append(1, c);
        } else if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

std::string Counted(size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string NumberText(double number) {
    constexpr double kLarge = 1e15, kSmall = 1e-5;
    const double size = std::fabs(number);
    const bool isUsual = size >= kSmall && size < kLarge;
    std::array<char, 64> text{};
    // Most numbers are whole, and those are written much faster.
    if (size < kLarge && number == std::trunc(number)) {
        const auto whole = static_cast<int64_t>(number);
        return {text.data(), std::to_chars(text.begin(), text.end(), whole).ptr};
    }
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number,
                                   isUsual ? std::chars_format::fixed : std::chars_format::general);
    return {text.data(), end.ptr};
}

std::string SizeText(uint64_t bytes) {
    constexpr uint64_t kMebibyte = uint64_t{1} << 20;
    if (bytes < kMebibyte) return Counted(bytes, "byte");
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB",
                  static_cast<double>(bytes) / static_cast<double>(kMebibyte));
    return text;
}

std::string InScript(std::string_view json) {
    std::string safe;
    safe.reserve(json.size());
    for (const char c : json) {
        if (c == '<' || c == '>' || c == '&') {
            safe += c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : "\\u0026";
        } else {
            safe += c;
        }
    }
    return safe;
}
