#include "kemdctl/ui/text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

static unsigned ByteAt(std::string_view text, size_t position) {
    return static_cast<unsigned char>(text[position]);
}

static bool IsTail(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

static bool IsPlain(char byte) {
    return byte >= 0x20 && byte < 0x7f;
}

size_t Utf8Length(std::string_view text) {
    if (text.empty()) return 0;
    const unsigned lead = ByteAt(text, 0);
    if (lead < 0x80) return 1;
    if (lead < 0xc2 || lead > 0xf4) return 0;
    const size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (text.size() < length) return 0;
    if (!std::all_of(text.begin() + 1, text.begin() + length, IsTail)) return 0;
    // Longer forms than needed, halves of surrogate pairs, and what is beyond the last character.
    const unsigned second = ByteAt(text, 1);
    if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second >= 0xa0)) return 0;
    if ((lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second >= 0x90)) return 0;
    return length;
}

uint32_t CodePoint(std::string_view character) {
    static constexpr unsigned kLeadBits[] = {0, 0x7f, 0x1f, 0x0f, 0x07};
    uint32_t code = ByteAt(character, 0) & kLeadBits[character.size()];
    for (size_t i = 1; i < character.size(); ++i) code = code << 6 | (ByteAt(character, i) & 0x3fU);
    return code;
}

bool IsControl(uint32_t codePoint) {
    struct Range {
        uint32_t first;
        uint32_t last;
    };
    static constexpr Range kRanges[] = {{0, 0x1f},        {0x7f, 0x9f},     {0x61c, 0x61c},
                                        {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}};
    return std::any_of(std::begin(kRanges), std::end(kRanges), [codePoint](Range each) {
        return codePoint >= each.first && codePoint <= each.last;
    });
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

std::string SizeText(uint64_t bytes) {
    constexpr uint64_t kMebibyte = uint64_t{1} << 20;
    if (bytes < kMebibyte) return Counted(bytes, "byte");
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB",
                  static_cast<double>(bytes) / static_cast<double>(kMebibyte));
    return text;
}

size_t Width(std::string_view text) {
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), IsTail));
}
