#include "kemdctl/performance/live_values.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "kemdctl/performance/format.h"
#include "kemdctl/performance/options.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string LabelText(const SeriesInfo& info) {
    std::string text;
    for (const std::string& value : LabelValues(info)) {
        text += (text.empty() ? "" : " ") + Printable(value);
    }
    return text;
}

}  // namespace

bool NaturalLess(std::string_view one, std::string_view other) {
    size_t i = 0, j = 0;
    while (i < one.size() && j < other.size()) {
        if (!IsDigit(one[i]) || !IsDigit(other[j])) {
            if (one[i] != other[j]) return one[i] < other[j];
            ++i;
            ++j;
            continue;
        }
        const auto take = [](std::string_view text, size_t& at) {
            while (at < text.size() && text[at] == '0') ++at;
            const size_t begin = at;
            while (at < text.size() && IsDigit(text[at])) ++at;
            return text.substr(begin, at - begin);
        };
        const std::string_view left = take(one, i), right = take(other, j);
        if (left.size() != right.size()) return left.size() < right.size();
        if (left != right) return left < right;
    }
    return one.size() - i < other.size() - j;
}

// A place that another series got has no past.
void LiveValues::Index(const SeriesTable& table) {
    m_generation = table.Generation();
    m_names.clear();
    m_past.resize(table.Size());
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        const std::string id = table.IsUsed(i) ? SeriesId(table.Info(i)) : "";
        if (m_past[i].id != id) m_past[i] = {id, 0, false};
        if (!table.IsUsed(i)) continue;
        m_names[table.Info(i).name].push_back({LabelText(table.Info(i)), i});
    }
}

void LiveValues::Take(const SeriesTable& table, int64_t monotonic) {
    if (m_past.size() != table.Size() || m_generation != table.Generation()) Index(table);
    const double seconds =
        static_cast<double>(monotonic - m_monotonic) / static_cast<double>(kSecond);
    m_monotonic = monotonic;
    m_values.assign(table.Size(), kNone);
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        Past& past = m_past[i];
        if (!table.IsUsed(i) || !table.HasValue(i)) {
            past.isThere = false;
            continue;
        }
        const SeriesInfo& info = table.Info(i);
        const uint64_t bits = table.Value(i);
        if (info.kind == SeriesKind::kGauge) {
            m_values[i] = SeriesNumber(info, bits);
        } else if (past.isThere && bits >= past.bits && seconds > 0) {
            m_values[i] = SeriesNumber(info, bits - past.bits) / seconds;
        }
        past.bits = bits;
        past.isThere = true;
    }
}

double LiveValues::Of(std::string_view name) const {
    const auto found = m_names.find(std::string(name));
    return found != m_names.end() ? m_values[found->second.front().index] : kNone;
}

double LiveValues::Sum(std::span<const std::string_view> names) const {
    double sum = 0;
    for (const std::string_view name : names) {
        const double value = Of(name);
        if (std::isfinite(value)) sum += value;
    }
    return sum;
}

std::vector<LiveRow> LiveValues::Rows(std::span<const std::string_view> names) const {
    constexpr auto kLess = [](const std::string& a, const std::string& b) {
        return NaturalLess(a, b);
    };
    std::map<std::string, std::vector<double>, decltype(kLess)> rows(kLess);
    for (size_t i = 0; i < names.size(); ++i) {
        const auto found = m_names.find(std::string(names[i]));
        if (found == m_names.end()) continue;
        for (const Place& place : found->second) {
            auto& row = rows[place.labels];
            row.resize(names.size(), kNone);
            row[i] = m_values[place.index];
        }
    }
    std::vector<LiveRow> result;
    result.reserve(rows.size());
    for (auto& [name, values] : rows) result.push_back({name, std::move(values)});
    return result;
}

std::vector<LiveModuleSeries> LiveModules::Newest(int64_t wall) {
    constexpr int64_t kRecent = 60 * kSecond;
    std::string error;
    if (!m_reader) m_reader = HistoryReader::Open(kHistoryPath, error);
    // A file that was replaced is opened again.
    if (m_reader && !m_reader->Refresh()) m_reader.reset();
    if (!m_reader || m_reader->Range().to < wall - kRecent) return {};
    const auto& series = m_reader->Series();
    std::vector<uint32_t> numbers;
    for (uint32_t i = 0; i < series.size(); ++i) {
        if (series[i].labels.find("module=\"") != std::string::npos) numbers.push_back(i);
    }
    const int64_t end = m_reader->Range().to;
    const int64_t begin = end - 3 * std::max(m_reader->PeriodNs(), kSecond);
    std::vector<std::vector<HistoryPoint>> points;
    if (numbers.empty()) return {};
    m_reader->Read(numbers, {begin, end}, 0, points);
    std::vector<LiveModuleSeries> result;
    for (size_t i = 0; i < numbers.size(); ++i) {
        if (points[i].empty()) continue;
        const SeriesInfo& info = series[numbers[i]];
        const double number = points[i].back().mean;
        result.push_back({Printable(ShortId(info)), ValueFormat(info).Text(number), number});
    }
    std::sort(result.begin(), result.end(),
              [](const auto& a, const auto& b) { return NaturalLess(a.name, b.name); });
    return result;
}
