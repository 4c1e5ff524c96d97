#include "modules/performance/alarms.h"

#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

struct RuleRow {
    std::array<const char*, 3> series;  // of the same labels; null: fewer
    bool isLow;                         // the value is beyond its limit when it is below
    bool isCount;                       // the value is what was counted within the time
};
// In the order of Rule.
constexpr RuleRow kRows[] = {
    {{"filesystem_size_bytes", "filesystem_free_bytes", "filesystem_available_bytes"},
     false,
     false},
    {{"memory_total_bytes", "memory_available_bytes"}, true, false},
    {{"pressure_memory_some_seconds"}, false, false},
    {{"temperature_celsius", "temperature_limit_celsius"}, true, false},
    {{"oom_kills"}, false, true},
    {{"disk_errors"}, false, true},
    {{"network_received_errors", "network_transmitted_errors"}, false, true},
};
static_assert(std::size(kRows) == kRules);

// An alarm that comes and goes and comes again is over when its value was good for this long: its
// records would fill the trace.
constexpr int kManyBegins = 3;
constexpr int64_t kSoonMs = 600'000;
constexpr int64_t kCalmMs = 60'000;

const RuleRow& RowOf(Rule rule) {
    return kRows[static_cast<size_t>(rule)];
}
unsigned AllOf(const RuleRow& row) {
    const auto count = std::count_if(row.series.begin(), row.series.end(),
                                     [](const char* name) { return name != nullptr; });
    return (1U << count) - 1;
}

__attribute__((format(printf, 1, 2))) std::string Formatted(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string DurationText(int64_t ms) {
    const auto seconds = static_cast<double>(ms) / 1000;
    if (seconds < 60) return Formatted("%.1f s", seconds);
    if (seconds < 3600) return Formatted("%.0f min", seconds / 60);
    return Formatted("%.1f h", seconds / 3600);
}

// The labels' values with blanks between: `chip="nvme",sensor="Composite"` is nvme Composite.
std::string ValuesOf(const std::string& labels) {
    std::string values;
    bool isInside = false;
    for (size_t i = 0; i < labels.size(); ++i) {
        if (labels[i] == '"') {
            if (!isInside && !values.empty()) values += ' ';
            isInside = !isInside;
        } else if (isInside) {
            if (labels[i] == '\\') ++i;
            values += i < labels.size() ? labels[i] : '\\';
        }
    }
    return values;
}

bool IsBeyond(double value, int64_t limit, bool isLow) {
    const auto number = static_cast<double>(limit);
    return isLow ? value <= number : value >= number;
}

// How many percent; of nothing there are none.
std::optional<double> Percent(double part, double whole) {
    if (whole <= 0) return std::nullopt;
    return 100 * part / whole;
}

}  // namespace

std::string WallText(int64_t wall) {
    const time_t seconds = wall / 1'000'000'000;
    tm local{};
    char text[32] = "";
    if (localtime_r(&seconds, &local) != nullptr) {
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    }
    return text;
}

void Alarms::Find(const SeriesTable& table) {
    for (Subjects& subjects : m_subjects) {
        for (auto& [labels, subject] : subjects) subject.found = 0;
    }
    for (SeriesTable::Index index = 0; index < table.Size(); ++index) {
        if (table.IsUsed(index)) Take(table.Info(index), index);
    }
    m_generation = table.Generation();
}

// Other modules may have series of these names.
void Alarms::Take(const SeriesInfo& info, SeriesTable::Index index) {
    if (info.labels.starts_with("module=\"")) return;
    for (size_t rule = 0; rule < kRules; ++rule) {
        const auto& names = kRows[rule].series;
        for (size_t i = 0; i < names.size() && names[i] != nullptr; ++i) {
            if (info.name != names[i]) continue;
            Subject& subject = m_subjects[rule][info.labels];
            subject.series[i] = index;
            subject.found |= 1U << i;
        }
    }
}

std::optional<double> Alarms::Value(Rule rule, Subject& subject, const SeriesTable& table,
                                    int64_t now) const {
    const RuleRow& row = RowOf(rule);
    if (subject.found != AllOf(row)) return std::nullopt;
    std::array<double, 3> numbers{};
    for (size_t i = 0; i < numbers.size() && row.series[i] != nullptr; ++i) {
        const SeriesTable::Index index = subject.series[i];
        if (!table.HasValue(index)) return std::nullopt;
        numbers[i] = SeriesNumber(table.Info(index), table.Value(index));
    }
    switch (rule) {
        case Rule::kFileSystemFull: {  // as df has it: what is reserved for root counts as used
            const double used = numbers[0] - numbers[1];
            return Percent(used, used + numbers[2]);
        }
        case Rule::kMemoryAvailable:
            return Percent(numbers[1], numbers[0]);
        case Rule::kTemperatureMargin:  // 0: nobody has set the chip's limit
            if (numbers[1] <= 0) return std::nullopt;
            return numbers[1] - numbers[0];
        case Rule::kMemoryPressure:
        case Rule::kOomKill:
        case Rule::kDiskErrors:
        case Rule::kInterfaceErrors:
            break;
    }
    const double sum = numbers[0] + numbers[1];
    const auto before = std::exchange(subject.last, std::pair(now, sum));
    if (!before || before->first >= now) return std::nullopt;
    const double grown = std::max(sum - before->second, 0.0);
    if (!row.isCount) return Percent(grown, static_cast<double>(now - before->first) / 1e9);
    if (grown > 0) subject.recent.emplace_back(now, grown);
    const int64_t oldest = now - m_limits[static_cast<size_t>(rule)].timeMs * 1'000'000;
    double counted = 0;
    while (!subject.recent.empty() && subject.recent.front().first < oldest) {
        subject.recent.pop_front();
    }
    for (const auto& [time, count] : subject.recent) counted += count;
    return counted;
}

void Alarms::Compare(const SeriesTable& table, const SampleTime& time,
                     std::vector<AlarmEvent>& events) {
    if (m_generation != table.Generation()) Find(table);
    for (size_t i = 0; i < kRules; ++i) CompareRule(static_cast<Rule>(i), table, time, events);
}

void Alarms::CompareRule(Rule rule, const SeriesTable& table, const SampleTime& time,
                         std::vector<AlarmEvent>& events) {
    const bool isOff = m_limits[static_cast<size_t>(rule)].begin == 0;
    Subjects& subjects = m_subjects[static_cast<size_t>(rule)];
    for (auto& [labels, subject] : subjects) {
        const auto value = Value(rule, subject, table, time.monotonic);
        if (value) subject.value = *value;
        // One that has no value for a moment keeps its state; one that is gone has none.
        if (value || isOff || subject.found != AllOf(RowOf(rule))) {
            Judge(rule, labels, subject, time, events);
        }
    }
    std::erase_if(subjects, [](const auto& each) { return each.second.found == 0; });
}

void Alarms::Judge(Rule rule, const std::string& labels, Subject& subject, const SampleTime& time,
                   std::vector<AlarmEvent>& events) const {
    const RuleRow& row = RowOf(rule);
    const Limit& limit = m_limits[static_cast<size_t>(rule)];
    const bool isAlarm = subject.since.has_value();
    const bool isOff = limit.begin == 0 || subject.found != AllOf(row);
    // What was counted has to fall to half.
    const int64_t end = row.isCount ? (limit.begin + 1) / 2 : limit.end;
    const bool isBeyond = !isOff && IsBeyond(subject.value, isAlarm ? end : limit.begin, row.isLow);
    if (isAlarm) {
        subject.worst = row.isLow ? std::min(subject.worst, subject.value)
                                  : std::max(subject.worst, subject.value);
    }
    if (isBeyond == isAlarm) {
        subject.crossed.reset();
        return;
    }
    if (!subject.crossed) subject.crossed = time;
    const int64_t waitedMs = (time.monotonic - subject.crossed->monotonic) / 1'000'000;
    int64_t timeMs = row.isCount ? 0 : limit.timeMs;
    if (isAlarm && subject.begins >= kManyBegins) timeMs = std::max(timeMs, kCalmMs);
    if (!isOff && waitedMs < timeMs) return;
    AlarmEvent event{isAlarm, subject.value, Text(rule, labels, subject.value), labels, row.series};
    if (isAlarm) {
        const int64_t lasted = (time.monotonic - subject.since->monotonic) / 1'000'000;
        event.text = "over after " + DurationText(lasted) + ": " + event.text +
                     Formatted(", at worst %.1f", subject.worst);
    } else {
        event.text += ", since " + WallText(subject.crossed->wall);
    }
    events.push_back(std::move(event));
    if (!isAlarm) {
        const bool isSoon = time.monotonic - subject.lastBegin < kSoonMs * 1'000'000;
        subject.begins = isSoon ? subject.begins + 1 : 1;
        subject.lastBegin = time.monotonic;
    }
    subject.worst = subject.value;
    subject.since = isAlarm ? std::nullopt : subject.crossed;
    subject.crossed.reset();
}

std::string Alarms::Text(Rule rule, const std::string& labels, double value) const {
    const Limit& limit = m_limits[static_cast<size_t>(rule)];
    const auto begin = static_cast<long long>(limit.begin);
    const std::string name = ValuesOf(labels);
    const std::string within = DurationText(limit.timeMs);
    switch (rule) {
        case Rule::kFileSystemFull:
            return Formatted("file system %s: %.1f %% full (limit %lld %%)", name.c_str(), value,
                             begin);
        case Rule::kMemoryAvailable:
            return Formatted("memory: %.1f %% available (limit %lld %%)", value, begin);
        case Rule::kMemoryPressure:
            return Formatted("memory pressure: %.1f %% of the time (limit %lld %%)", value, begin);
        case Rule::kTemperatureMargin:
            return Formatted("temperature of %s: %.1f C below the sensor's limit (limit %lld C)",
                             name.c_str(), value, begin);
        case Rule::kOomKill:
            return Formatted("out of memory: %.0f killed within %s (limit %lld)", value,
                             within.c_str(), begin);
        case Rule::kDiskErrors:
            return Formatted("disk %s: %.0f errors within %s (limit %lld)", name.c_str(), value,
                             within.c_str(), begin);
        case Rule::kInterfaceErrors:
            return Formatted("interface %s: %.0f errors within %s (limit %lld)", name.c_str(),
                             value, within.c_str(), begin);
    }
    return {};
}

std::string Alarms::Texts() const {
    std::string texts;
    for (size_t i = 0; i < kRules; ++i) {
        for (const auto& [labels, subject] : m_subjects[i]) {
            if (!subject.since) continue;
            texts += (texts.empty() ? "" : "; ") +
                     Text(static_cast<Rule>(i), labels, subject.value) + ", since " +
                     WallText(subject.since->wall);
        }
    }
    return texts;
}
