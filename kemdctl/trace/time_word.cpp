#include "kemdctl/trace/time_word.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <string>

#include "kemdctl/facts/daemon_environment.h"
#include "kemdctl/facts/daemon_state.h"
#include "trace_reader/record.h"

namespace {

constexpr size_t kDateLength = 10;
constexpr int64_t kDayMs = int64_t{24} * 60 * 60 * 1000;
constexpr int64_t kLongest = 100'000 * kDayMs;

struct Unit {
    std::string_view name;
    int64_t milliseconds;
};
constexpr Unit kSpanUnits[] = {{"ms", 1},        {"s", 1000},   {"m", 60'000},
                               {"h", 3'600'000}, {"d", kDayMs}, {"w", 7 * kDayMs}};

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool TakeWord(std::string_view& text, std::string_view word) {
    if (!text.starts_with(word)) return false;
    text.remove_prefix(word.size());
    return true;
}

// Takes "1.5" off.
std::optional<double> TakeNumber(std::string_view& text) {
    double number = 0;
    if (text.empty() || !IsDigit(text[0])) return {};
    const auto [next, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc{}) return {};
    text.remove_prefix(static_cast<size_t>(next - text.data()));
    return number;
}

std::optional<int64_t> ParseSpan(std::string_view text, bool mayBeBare) {
    double sum = 0;
    do {
        const auto number = TakeNumber(text);
        if (!number) return {};
        const size_t length = std::min(text.find_first_of("0123456789"), text.size());
        const std::string_view name = text.substr(0, length);
        const auto* unit = std::find_if(std::begin(kSpanUnits), std::end(kSpanUnits),
                                        [name](const Unit& each) { return each.name == name; });
        const bool isBare = name.empty() && mayBeBare && sum == 0;
        if (unit == std::end(kSpanUnits) && !isBare) return {};
        sum += *number * static_cast<double>(isBare ? 1000 : unit->milliseconds);
        text.remove_prefix(length);
    } while (!text.empty());
    if (sum > static_cast<double>(kLongest)) return {};
    return static_cast<int64_t>(sum);
}

// Of "20:04:51.123", "8:04:51", "20:04".
std::optional<int64_t> ParseClock(const std::string& date, std::string_view text) {
    std::string clock(text.substr(0, text.find('.')));
    if (clock.size() > 1 && clock[1] == ':') clock.insert(0, 1, '0');
    if (clock.size() == 5) clock += ":00";
    const std::string whole = date + ' ' + clock;
    int64_t time = 0;
    if (whole.size() != kDateLength + 9 || !ParseSecond(whole.c_str(), time)) return {};
    const size_t point = text.find('.');
    if (point == text.npos) return time;
    std::string part(text.substr(point + 1));
    if (part.empty() || part.size() > 3 || part.find_first_not_of("0123456789") != part.npos) {
        return {};
    }
    part.resize(3, '0');
    return time + std::stoi(part);
}

bool IsRelative(std::string_view text) {
    return text == "now" || text.starts_with('-') || text.starts_with('+');
}

// As `now`.
std::optional<int64_t> ParseRelative(std::string_view text, int64_t now) {
    if (text == "now") return now;
    const auto span = ParseSpan(text.substr(1), false);
    if (!span) return {};
    return text[0] == '-' ? now - *span : now + *span;
}

}  // namespace

int64_t ClockNow() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

int64_t LocalTime(int64_t utcMilliseconds) {
    using namespace std::chrono;
    // The trace has the daemon's time, whatever the caller's is.
    static const bool isZoneSet = (UseTimeZone(ReadDaemonEnvironment(ReadDaemonBriefly())), true);
    (void)isZoneSet;
    const auto second = floor<seconds>(milliseconds(utcMilliseconds));
    const auto time = static_cast<time_t>(second.count());
    struct tm parts = {};
    if (localtime_r(&time, &parts) == nullptr) return utcMilliseconds;
    return static_cast<int64_t>(timegm(&parts)) * 1000 +
           (milliseconds(utcMilliseconds) - second).count();
}

int64_t UtcTime(int64_t localMilliseconds) {
    using namespace std::chrono;
    (void)LocalTime(0);  // the zone is set
    const auto second = floor<seconds>(milliseconds(localMilliseconds));
    const auto time = static_cast<time_t>(second.count());
    struct tm parts = {};
    if (gmtime_r(&time, &parts) == nullptr) return localMilliseconds;
    parts.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&parts)) * 1000 +
           (milliseconds(localMilliseconds) - second).count();
}

std::optional<int64_t> ParseSpan(std::string_view text) {
    return ParseSpan(text, true);
}

std::optional<int64_t> ParseTime(std::string_view text, int64_t now) {
    if (IsRelative(text)) {
        const auto time = ParseRelative(text, now);
        return time ? std::optional(LocalTime(*time)) : std::nullopt;
    }
    int64_t day = LocalTime(now);
    bool hasDate = TakeWord(text, "today");
    if (!hasDate && TakeWord(text, "yesterday")) {
        hasDate = true;
        day -= kDayMs;
    }
    std::string date(FormatTime(day).data(), kDateLength);
    if (!hasDate && text.size() >= kDateLength && text[4] == '-') {
        hasDate = true;
        date = text.substr(0, kDateLength);
        text.remove_prefix(kDateLength);
    }
    if (hasDate && text.empty()) return ParseClock(date, "00:00");
    if (hasDate && text[0] != ' ' && text[0] != 'T') return {};
    return ParseClock(date, text.substr(hasDate ? 1 : 0));
}

std::optional<int64_t> ParseUtcTime(std::string_view text, int64_t now) {
    if (IsRelative(text)) return ParseRelative(text, now);
    const auto local = ParseTime(text, now);
    return local ? std::optional(UtcTime(*local)) : std::nullopt;
}
