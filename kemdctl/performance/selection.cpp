#include "kemdctl/performance/selection.h"

#include <fnmatch.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <string_view>
#include <utility>

#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"

namespace {

// How many letters must change to make one of the other.
size_t Distance(std::string_view one, std::string_view other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < one.size(); ++i) {
        size_t corner = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < other.size(); ++j) {
            const size_t changed = corner + (one[i] == other[j] ? 0 : 1);
            corner = std::exchange(row[j + 1], std::min({row[j], row[j + 1], corner}) + 1);
            row[j + 1] = std::min(row[j + 1], changed);
        }
    }
    return row.back();
}

// Whether its letters are in the name, in this order.
bool HasLetters(std::string_view name, std::string_view word) {
    for (const char letter : word) {
        const size_t found = name.find(letter);
        if (found == name.npos) return false;
        name.remove_prefix(found + 1);
    }
    return true;
}

// Names that hold the word or its letters, or that are nearly it.
std::string Similar(std::span<const SeriesInfo> series, std::string_view pattern) {
    constexpr size_t kMost = 3;
    const bool hasLabel = pattern.find_first_of("/{") != pattern.npos;
    std::string word(pattern);
    if (!hasLabel) std::erase_if(word, [](char c) { return c == '*' || c == '?'; });
    std::vector<std::pair<size_t, std::string>> found;
    for (const SeriesInfo& info : series) {
        const std::string name = hasLabel ? ShortId(info) : info.name;
        const size_t distance = Distance(word, name);
        constexpr size_t kLetters = 4;
        const bool holds = name.find(word) != name.npos
                               ? !word.empty()
                               : word.size() >= kLetters && HasLetters(name, word);
        if (!holds && distance * 3 > std::max(word.size(), name.size())) continue;
        found.emplace_back(distance, name);
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    std::string text;
    for (size_t i = 0; i < std::min(found.size(), kMost); ++i) {
        text += (i == 0 ? "; similar: " : ", ") + Printable(found[i].second);
    }
    return text.empty() ? "; kemdctl performance list shows all" : text;
}

bool IsNamed(const SeriesInfo& info, const std::string& pattern) {
    const std::string names[] = {info.name, ShortId(info), SeriesId(info)};
    if (std::find(std::begin(names), std::end(names), pattern) != std::end(names)) return true;
    if (pattern.find_first_of("*?[") == pattern.npos) {
        // One of several labels is enough.
        const size_t slash = pattern.find('/');
        if (slash == pattern.npos || pattern.substr(0, slash) != info.name) return false;
        const std::vector<std::string> values = LabelValues(info);
        return std::find(values.begin(), values.end(), pattern.substr(slash + 1)) != values.end();
    }
    return std::any_of(std::begin(names), std::end(names), [&pattern](const std::string& name) {
        return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
    });
}

// What is counted at another device, too, or goes nowhere.
bool IsDouble(const SeriesInfo& info) {
    constexpr const char* kDisks[] = {"dm-*", "md*", "loop*", "ram*", "zram*"};
    constexpr const char* kInterfaces[] = {"lo",    "veth*", "docker*", "br*",   "virbr*", "bond*",
                                           "team*", "tun*",  "tap*",    "vnet*", "*.*",    "wg*"};
    const std::vector<std::string> values = LabelValues(info);
    const bool isDisk = info.name.starts_with("disk_");
    const std::span<const char* const> patterns =
        isDisk ? std::span<const char* const>(kDisks) : std::span<const char* const>(kInterfaces);
    return !values.empty() &&
           std::any_of(patterns.begin(), patterns.end(), [&values](const char* pattern) {
               return fnmatch(pattern, values[0].c_str(), 0) == 0;
           });
}

struct OverviewColumn {
    const char* heading;
    std::vector<std::string_view> names;
};
const std::vector<OverviewColumn>& Overview() {
    static const std::vector<OverviewColumn> columns = {
        {"CPU",
         {"cpu_user_seconds", "cpu_nice_seconds", "cpu_system_seconds", "cpu_irq_seconds",
          "cpu_softirq_seconds", "cpu_steal_seconds"}},
        {"I/O wait", {"cpu_iowait_seconds"}},
        {"load", {"load_1"}},
        {"available", {"memory_available_bytes"}},
        {"read", {"disk_read_bytes"}},
        {"written", {"disk_written_bytes"}},
        {"received", {"network_received_bytes"}},
        {"sent", {"network_transmitted_bytes"}},
        {"CPU stall", {"pressure_cpu_some_seconds"}},
        {"memory stall", {"pressure_memory_some_seconds"}},
        {"I/O stall", {"pressure_io_some_seconds"}},
    };
    return columns;
}

std::vector<Column> MakeOverview(std::span<const SeriesInfo> series) {
    std::vector<Column> columns;
    const size_t cores = CountCores(series);
    for (const auto& [heading, names] : Overview()) {
        std::vector<uint32_t> numbers, doubles;
        for (uint32_t i = 0; i < series.size(); ++i) {
            if (std::find(names.begin(), names.end(), series[i].name) == names.end()) continue;
            (IsDouble(series[i]) ? doubles : numbers).push_back(i);
        }
        if (numbers.empty()) numbers = doubles;
        if (numbers.empty()) continue;
        columns.push_back({heading, ValueFormat(series[numbers[0]], cores), numbers});
    }
    return columns;
}

void AddPoint(std::map<int64_t, HistoryPoint>& sums, const HistoryPoint& point) {
    HistoryPoint& sum = sums[point.wall];
    sum.wall = point.wall;
    sum.minimum += point.minimum;
    sum.mean += point.mean;
    sum.maximum += point.maximum;
    sum.last += point.last;
}

ColumnPoints Sum(std::span<const ColumnPoints> parts) {
    std::map<int64_t, HistoryPoint> sums;
    for (const ColumnPoints& part : parts) {
        for (const HistoryPoint& point : part) AddPoint(sums, point);
    }
    ColumnPoints points;
    for (const auto& [wall, point] : sums) points.push_back(point);
    return points;
}

}  // namespace

std::optional<std::vector<uint32_t>> ChooseSeries(std::span<const SeriesInfo> series,
                                                  const std::vector<std::string>& patterns) {
    std::vector<uint32_t> chosen;
    std::vector<bool> isChosen(series.size());
    bool isGood = true;
    for (const std::string& pattern : patterns) {
        bool hasMatch = false;
        for (uint32_t i = 0; i < series.size(); ++i) {
            if (!IsNamed(series[i], pattern)) continue;
            hasMatch = true;
            if (!isChosen[i]) chosen.push_back(i);
            isChosen[i] = true;
        }
        if (hasMatch) continue;
        isGood = false;
        Complain("no series %s%s", Printable(pattern).c_str(), Similar(series, pattern).c_str());
    }
    if (!isGood) return {};
    if (patterns.empty()) {
        chosen.resize(series.size());
        std::iota(chosen.begin(), chosen.end(), 0U);
    }
    return chosen;
}

std::optional<std::vector<Column>> ChooseColumns(const HistoryReader& reader,
                                                 const std::vector<std::string>& patterns) {
    const std::vector<SeriesInfo>& series = reader.Series();
    if (patterns.empty()) {
        std::vector<Column> columns = MakeOverview(series);
        if (!columns.empty()) return columns;
    }
    const auto chosen = ChooseSeries(series, patterns);
    if (!chosen) return {};
    std::vector<Column> columns;
    const size_t cores = CountCores(series);
    for (const uint32_t number : *chosen) {
        const SeriesInfo& info = series[number];
        columns.push_back({Printable(ShortId(info)), ValueFormat(info, cores), {number}});
    }
    return columns;
}

std::vector<ColumnPoints> ReadColumns(HistoryReader& reader, std::span<const Column> columns,
                                      HistorySpan span, int64_t step) {
    std::vector<uint32_t> numbers;
    for (const Column& column : columns) {
        numbers.insert(numbers.end(), column.series.begin(), column.series.end());
    }
    std::vector<ColumnPoints> read;
    reader.Read(numbers, span, step, read);
    std::vector<ColumnPoints> points;
    size_t next = 0;
    for (const Column& column : columns) {
        const std::span<ColumnPoints> parts(&read[next], column.series.size());
        next += column.series.size();
        points.push_back(parts.size() == 1 ? std::move(parts[0]) : Sum(parts));
    }
    return points;
}
