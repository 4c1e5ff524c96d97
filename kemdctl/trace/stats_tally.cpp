#include "kemdctl/trace/stats_tally.h"

#include <algorithm>
#include <cctype>

void Tally::Count(std::string_view text) {
    const auto found = m_counts.find(text);
    if (found != m_counts.end()) {
        ++found->second;
    } else if (m_counts.size() < m_limit) {
        m_counts.emplace(text, 1);
    } else {
        ++m_leftOut;
    }
}

std::vector<std::pair<std::string_view, uint64_t>> Tally::Top(size_t most) const {
    std::vector<std::pair<std::string_view, uint64_t>> all(m_counts.begin(), m_counts.end());
    const auto middle = all.begin() + static_cast<std::ptrdiff_t>(std::min(most, all.size()));
    std::partial_sort(all.begin(), middle, all.end(), [](const auto& a, const auto& b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    all.erase(middle, all.end());
    return all;
}

std::string NormaliseText(std::string_view text) {
    constexpr size_t kLongest = 160;
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const auto isHex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    std::string result;
    text = text.substr(0, text.find('\n'));
    for (size_t i = 0; i < text.size() && result.size() < kLongest;) {
        if (!isDigit(text[i])) {
            result += text[i++];
            continue;
        }
        const bool isPrefixed = text.substr(i).starts_with("0x");
        result += isPrefixed ? "0x#" : "#";
        i += isPrefixed ? 2 : 0;
        while (i < text.size() && (isPrefixed ? isHex(text[i]) : isDigit(text[i]))) ++i;
    }
    return result;
}
