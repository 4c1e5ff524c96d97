#include "kemdctl/trace/stats_counts.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace {

constexpr int64_t kSecond = 1000, kMinute = 60 * kSecond, kHour = 60 * kMinute, kDay = 24 * kHour;

// Each is a multiple of the one before, so that steps can be joined. Up to a minute seconds are
// fine enough; after them come minutes, as long as they fit.
constexpr int64_t kUnits[] = {10,          100,          500,          kSecond,  kMinute,
                              5 * kMinute, 10 * kMinute, 30 * kMinute, kHour,    2 * kHour,
                              6 * kHour,   12 * kHour,   kDay,         7 * kDay, 28 * kDay};

int64_t NextUnit(int64_t unit) {
    const auto* next = std::upper_bound(std::begin(kUnits), std::end(kUnits), unit);
    return next == std::end(kUnits) ? 2 * unit : *next;
}

// Times before 1970 are not left out.
int64_t Step(int64_t time, int64_t unit) {
    return time / unit - (time % unit < 0 ? 1 : 0);
}

void Join(TimeHistogram::Bar& to, uint64_t count, int64_t residentKb) {
    to.count += count;
    to.residentKb = std::max(to.residentKb, residentKb);
}

std::string Two(int64_t large, const char* largeUnit, int64_t small, const char* smallUnit) {
    std::string text = std::to_string(large) + largeUnit;
    return small == 0 ? text : text + " " + std::to_string(small) + smallUnit;
}

}  // namespace

void TimeHistogram::Add(int64_t time, int64_t residentKb) {
    Join(m_bars[Step(time, m_unit)], 1, residentKb);
    while (m_bars.rbegin()->first - m_bars.begin()->first >= kMostBars) Coarsen();
}

void TimeHistogram::Coarsen() {
    const int64_t unit = NextUnit(m_unit);
    std::map<int64_t, Bar> bars;
    for (const auto& [step, bar] : m_bars) {
        Join(bars[Step(step * m_unit, unit)], bar.count, bar.residentKb);
    }
    m_bars = std::move(bars);
    m_unit = unit;
}

std::string DurationText(int64_t milliseconds) {
    if (milliseconds < kSecond) return std::to_string(milliseconds) + " ms";
    const int64_t seconds = milliseconds / kSecond;
    if (milliseconds < kMinute) {
        const int64_t rest = milliseconds % kSecond;
        if (rest == 0) return std::to_string(seconds) + " s";
        char text[32];
        std::snprintf(text, sizeof text, "%d.%03d s", static_cast<int>(seconds),
                      static_cast<int>(rest));
        return text;
    }
    if (milliseconds < kHour) return Two(seconds / 60, " min", seconds % 60, " s");
    if (milliseconds < kDay) return Two(seconds / 3600, " h", seconds / 60 % 60, " min");
    return Two(seconds / 86400, " d", seconds / 3600 % 24, " h");
}

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
