#include "trace_reader/record.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::string_view kSecondForm = "dddd-dd-dd dd:dd:dd";

using trace_text::kTagWidth;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

int Number(const char* digits, size_t count) {
    int number = 0;
    for (size_t i = 0; i < count; ++i) number = number * 10 + (digits[i] - '0');
    return number;
}

bool ParseThread(const char* digits, uint32_t& thread) {
    thread = 0;
    for (size_t i = 0; i < 8; ++i) {
        const char c = digits[i];
        const bool isLetter = c >= 'A' && c <= 'F';
        if (!isLetter && !IsDigit(c)) return false;
        thread = thread << 4 | static_cast<uint32_t>(isLetter ? c - 'A' + 10 : c - '0');
    }
    return true;
}

// Takes a column like "    3188 KB !" off; nothing when it is not there.
void TakeColumn(std::string_view& rest, const trace_text::ColumnForm& form, int64_t& value) {
    if (rest.empty() || (rest[0] != ' ' && !IsDigit(rest[0]))) return;
    size_t end = 0;
    while (end < rest.size() && rest[end] == ' ') ++end;
    const size_t start = end;
    int64_t number = 0;
    for (; end < rest.size() && IsDigit(rest[end]); ++end) {
        if (number <= INT64_MAX / 100) number = number * 10 + (rest[end] - '0');
    }
    if (end == start || end < form.width || !rest.substr(end).starts_with(form.unit)) return;
    value = number;
    rest.remove_prefix(end + form.unit.size());
}

}  // namespace

void KeptRecord::Keep(const TraceRecord& record) {
    const auto offsetOf = [&record](std::string_view part) {
        return part.empty() ? 0 : static_cast<size_t>(part.data() - record.line.data());
    };
    m_record = record;
    m_line.assign(record.line);
    m_tag = offsetOf(record.tag);
    m_text = offsetOf(record.text);
}

TraceRecord KeptRecord::Get() const {
    TraceRecord record = m_record;
    record.line = m_line;
    record.tag = record.line.substr(m_tag, m_record.tag.size());
    record.text = record.line.substr(m_text, m_record.text.size());
    return record;
}

bool ParseSecond(const char* bytes, int64_t& time) {
    for (size_t i = 0; i < kSecondForm.size(); ++i) {
        const bool fits = kSecondForm[i] == 'd' ? IsDigit(bytes[i]) : bytes[i] == kSecondForm[i];
        if (!fits) return false;
    }
    using namespace std::chrono;
    const year_month_day date(year(Number(bytes, 4)),
                              month(static_cast<unsigned>(Number(bytes + 5, 2))),
                              day(static_cast<unsigned>(Number(bytes + 8, 2))));
    const int hour = Number(bytes + 11, 2), minute = Number(bytes + 14, 2);
    const int second = Number(bytes + 17, 2);
    if (!date.ok() || hour > 23 || minute > 59 || second > 60) return false;
    const int64_t days = sys_days(date).time_since_epoch().count();
    time = (((days * 24 + hour) * 60 + minute) * 60 + second) * 1000;
    return true;
}

std::array<char, 24> FormatTime(int64_t time) {
    using namespace std::chrono;
    const sys_time<milliseconds> point{milliseconds(time)};
    const auto date = floor<days>(point);
    const year_month_day ymd(date);
    const hh_mm_ss<milliseconds> day(point - date);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d.%03d",
                  static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                  static_cast<unsigned>(ymd.day()), static_cast<int>(day.hours().count()),
                  static_cast<int>(day.minutes().count()), static_cast<int>(day.seconds().count()),
                  static_cast<int>(day.subseconds().count()));
    std::array<char, 24> result{};
    std::copy_n(text.begin(), result.size() - 1, result.begin());
    return result;
}

bool PrefixParser::TakeSecond(const char* bytes) {
    int64_t time = 0;
    if (bytes[kSecondLength - 1] != '.' || !ParseSecond(bytes, time)) return false;
    m_secondTime = time;
    std::memcpy(m_second.data(), bytes, kSecondLength);
    return true;
}

bool PrefixParser::TakeThread(const char* bytes) {
    const bool isFramed =
        bytes[0] == ' ' && bytes[1] == '[' && bytes[10] == ']' && bytes[11] == ' ';
    uint32_t number = 0;
    if (!isFramed || !ParseThread(bytes + 2, number)) return false;
    m_threadNumber = number;
    std::memcpy(m_thread.data(), bytes, kThreadLength);
    return true;
}

PrefixParser::Head PrefixParser::ParseNewHead(const char* bytes, size_t length) {
    if (length < kHeadLength || !TakeThread(bytes + kThreadAt)) return {};
    const std::string_view time(bytes, trace_text::kUnknownTime.size());
    if (time == trace_text::kUnknownTime) return {m_time, m_threadNumber, 1};
    return TakeSecond(bytes) ? ParseHead(bytes, length) : Head{};
}

// A tag that is longer than its column ends at a blank, or where the prefix was cut.
void PrefixParser::ParseRest(TraceRecord& record) {
    std::string_view rest = record.line.substr(kHeadLength);
    ClearColumns(record);
    for (size_t i = 0; i < trace_text::kColumnCount; ++i) {
        TakeColumn(rest, trace_text::kColumns[i], record.*kColumnFields[i]);
    }
    const size_t limit = trace_text::kPrefixLimit - (record.line.size() - rest.size());
    const size_t end =
        std::min({rest.find(' ', kTagWidth), rest.size(), std::max(limit, kTagWidth)});
    record.tag = rest.substr(0, end);
    record.tag = record.tag.substr(0, record.tag.find_last_not_of(' ') + 1);
    record.text = rest.substr(end < rest.size() && rest[end] == ' ' ? end + 1 : end);
}
