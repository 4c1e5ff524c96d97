#include "base/utf8.h"

#include <algorithm>
#include <iterator>

static unsigned ByteAt(std::string_view text, size_t position) {
    return static_cast<unsigned char>(text[position]);
}

static bool IsTail(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
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

size_t Width(std::string_view text) {
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), IsTail));
}
