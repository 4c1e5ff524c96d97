#include "performance/history_minutes.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace {

// Rates and distances of a mean keep 8 significant bits, in the order of the numbers.
constexpr int kDropped = 45;

uint64_t Short(double number) {
    if (!(number > 0)) return 0;
    return (std::bit_cast<uint64_t>(number) + (uint64_t{1} << (kDropped - 1))) >> kDropped;
}
double Long(uint64_t number) {
    return std::bit_cast<double>(number << kDropped);
}

double Stored(const SeriesInfo& info, uint64_t bits) {
    return info.isReal ? std::bit_cast<double>(bits)
                       : static_cast<double>(static_cast<int64_t>(bits));
}

bool IsLess(const SeriesInfo& info, uint64_t a, uint64_t b) {
    if (info.isReal) return std::bit_cast<double>(a) < std::bit_cast<double>(b);
    return static_cast<int64_t>(a) < static_cast<int64_t>(b);
}

void Merge(const SeriesInfo& info, StepValues& into, const StepValues& values) {
    if (into.weight == 0) {
        into = values;
        return;
    }
    into.minimum = std::min(into.minimum, values.minimum);
    into.maximum = std::max(into.maximum, values.maximum);
    into.sum += values.sum;
    into.weight += values.weight;
    into.last = values.last;
    if (info.kind == SeriesKind::kCounter) return;
    if (IsLess(info, values.least, into.least)) into.least = values.least;
    if (IsLess(info, into.most, values.most)) into.most = values.most;
}

// Of a counter without a reset the mean rate follows from its last values, so that as a rule only
// zeros are kept of it.
std::optional<uint64_t> ExpectedMean(const SeriesInfo& info, const StepCells& cells,
                                     uint64_t last) {
    if (!cells.hasBefore || cells.nanoseconds <= 0) return {};
    const auto grown = CounterGrowth(info, cells.lastBefore, last);
    if (!grown) return {};
    return Short(*grown / (static_cast<double>(cells.nanoseconds) / 1e9));
}

int64_t IndexOf(int64_t wall, size_t which) {
    const int64_t step = which == 0 ? kMinuteNs : kHourNs;
    return wall / step - (wall % step < 0 ? 1 : 0);
}

}  // namespace

bool IsRealPart(const SeriesInfo& info, uint32_t part) {
    if (!info.isReal || part == kMean) return false;
    return info.kind == SeriesKind::kGauge || part == kLast;
}

void PackStep(const SeriesInfo& info, const StepValues& values, StepCells& cells) {
    auto& parts = cells.parts;
    if (info.kind == SeriesKind::kCounter) {
        const uint64_t least = Short(values.minimum);
        const uint64_t mean = Short(values.Mean());
        parts[kLast] = values.last;
        parts[kLeast] = least;
        parts[kMean] = mean - ExpectedMean(info, cells, values.last).value_or(least);
        parts[kMost] = Short(values.maximum) - mean;
        return;
    }
    const double least = Stored(info, values.least);
    parts[kLast] = values.last - (info.isReal ? 0 : values.least);
    parts[kLeast] = values.least;
    parts[kMean] = Short(Stored(info, values.most) - least) - Short(values.Mean() - least);
    parts[kMost] = values.most - (info.isReal ? 0 : values.last);
}

StepValues UnpackStepValues(const SeriesInfo& info, const StepCells& cells) {
    const auto& parts = cells.parts;
    StepValues values;
    values.weight = 1;
    if (info.kind == SeriesKind::kCounter) {
        const uint64_t least = parts[kLeast];
        const uint64_t mean =
            parts[kMean] + ExpectedMean(info, cells, parts[kLast]).value_or(least);
        values.minimum = Long(least);
        values.sum = Long(mean);
        values.maximum = Long(mean + parts[kMost]);
        values.last = parts[kLast];
        return values;
    }
    values.least = parts[kLeast];
    values.last = parts[kLast] + (info.isReal ? 0 : values.least);
    values.most = parts[kMost] + (info.isReal ? 0 : values.last);
    values.minimum = Stored(info, values.least);
    values.maximum = Stored(info, values.most);
    const uint64_t range = Short(values.maximum - values.minimum);
    values.sum = std::min(values.minimum + Long(range - parts[kMean]), values.maximum);
    return values;
}

HistoryPoint UnpackStep(const SeriesInfo& info, const StepCells& cells) {
    const StepValues values = UnpackStepValues(info, cells);
    const bool isScaled = info.kind == SeriesKind::kGauge && !info.isReal;
    const double scale = isScaled ? static_cast<double>(info.multiply) / info.divide : 1;
    HistoryPoint point;
    point.minimum = isScaled ? SeriesNumber(info, values.least) : values.minimum;
    point.maximum = isScaled ? SeriesNumber(info, values.most) : values.maximum;
    point.mean = std::clamp(values.Mean() * scale, std::min(point.minimum, point.maximum),
                            std::max(point.minimum, point.maximum));
    point.last = SeriesNumber(info, values.last);
    return point;
}

bool TakeStepRow(const BlockRows& rows, size_t i, StepRow& row) {
    const ColumnValues* const count = rows.Find(kCountColumn);
    const ColumnValues* const length = rows.Find(kLengthColumn);
    const ColumnValues* const rate = rows.Find(kRateColumn);
    if (count == nullptr || length == nullptr || rate == nullptr) return false;
    row.boot = rows.boot;
    row.time = rows.times[i];
    row.samples = count->values[i];
    row.length = length->values[i];
    row.rateMs = rate->values[i];
    return true;
}

void ForEachStep(
    const BlockRows& rows, size_t i,
    const std::function<void(uint32_t place, uint16_t tag, const StepCells& cells)>& take) {
    const auto& columns = rows.columns;
    for (size_t at = 0; at < columns.size();) {
        const uint32_t place = SeriesOf(columns[at].id);
        StepCells cells;
        size_t found = 0;
        const size_t first = at;
        for (; at < columns.size() && SeriesOf(columns[at].id) == place; ++at) {
            const uint32_t part = PartOf(columns[at].id);
            if (part >= cells.parts.size() || columns[at].isPresent[i] == 0) continue;
            cells.parts[part] = columns[at].values[i];
            ++found;
            if (part != kLast || i == 0 || columns[at].isPresent[i - 1] == 0) continue;
            cells.hasBefore = true;
            cells.lastBefore = columns[at].values[i - 1];
            cells.nanoseconds = rows.times[i].monotonic - rows.times[i - 1].monotonic;
        }
        if (place != kNoSeries && found == cells.parts.size()) {
            take(place, columns[first].tag, cells);
        }
    }
}

double StepWeight(const SeriesInfo& info, const StepRow& row) {
    constexpr double kLeast = 1e-3;
    const double weight = info.kind == SeriesKind::kGauge ? static_cast<double>(row.samples)
                                                          : static_cast<double>(row.rateMs) / 1000;
    return std::max(weight, kLeast);
}

uint32_t HistoryMinutes::Number(uint32_t place, uint16_t tag, const SeriesInfo& info) {
    const auto next = static_cast<uint32_t>(m_series.size());
    const auto [found, isNew] = m_numbers.emplace(uint64_t{place} << 16 | tag, next);
    if (isNew) {
        Series& series = m_series.emplace_back();
        series.place = place;
        series.tag = tag;
        series.info = info;
    }
    return found->second;
}

void HistoryMinutes::Begin(uint32_t boot, const SampleTime& time) {
    Current& minute = m_now[0];
    const int64_t index = IndexOf(time.wall, 0);
    if (minute.row.samples > 0 && (minute.index != index || minute.row.boot != boot)) EndMinute();
    Current& hour = m_now[1];
    const bool isHourOver = hour.index != IndexOf(time.wall, 1) || hour.row.boot != boot;
    if (hour.row.samples > 0 && isHourOver) End(1);
    const int64_t before = m_boot == boot ? m_time.monotonic : time.monotonic;
    if (minute.row.samples == 0) minute = {index, time.monotonic, {kMinutes, boot, {}, 0, 0, 0}};
    ++minute.row.samples;
    minute.row.time = time;
    minute.row.length = static_cast<uint64_t>(time.monotonic - minute.first);
    minute.row.rateMs += static_cast<uint64_t>((time.monotonic - before) / 1'000'000);
    m_boot = boot;
    m_time = time;
}

void HistoryMinutes::Set(uint32_t number, uint64_t bits) {
    Series& series = m_series[number];
    series.isSeen = true;
    StepValues values;
    values.last = bits;
    values.weight = 1;
    if (series.info.kind == SeriesKind::kCounter) {
        const auto rate = series.rate.Next(series.info, m_boot, m_time.monotonic, bits);
        if (!rate) {
            series.steps[0].last = bits;
            return;
        }
        values.minimum = values.maximum = *rate;
        values.weight = series.rate.Seconds();
    } else {
        values.least = values.most = bits;
        values.minimum = values.maximum = Stored(series.info, bits);
        if (!std::isfinite(values.minimum)) return;
    }
    values.sum = values.minimum * values.weight;
    Merge(series.info, series.steps[0], values);
}

void HistoryMinutes::Know(uint32_t number, uint32_t boot, const SampleTime& time, uint64_t bits) {
    Series& series = m_series[number];
    series.rate.Know(boot, time.monotonic, bits);
    m_boot = boot;
    m_time = time;
}

void HistoryMinutes::BeginHour(uint32_t boot, int64_t wall, int64_t first) {
    Current& hour = m_now[1];
    const int64_t index = IndexOf(wall, 1);
    if (hour.row.samples > 0 && (hour.index != index || hour.row.boot != boot)) End(1);
    if (hour.row.samples == 0) hour = {index, first, {kHours, boot, {}, 0, 0, 0}};
}

void HistoryMinutes::AddMinute(const StepRow& row) {
    BeginHour(row.boot, row.time.wall, row.time.monotonic - static_cast<int64_t>(row.length));
    Current& hour = m_now[1];
    hour.row.samples += row.samples;
    hour.row.rateMs += row.rateMs;
    hour.row.time = row.time;
    hour.row.length = static_cast<uint64_t>(row.time.monotonic - hour.first);
}

void HistoryMinutes::AddStep(uint32_t number, const StepValues& values) {
    Series& series = m_series[number];
    Merge(series.info, series.steps[1], values);
}

void HistoryMinutes::EndMinute() {
    const StepRow row = m_now[0].row;
    AddMinute(row);
    for (Series& series : m_series) {
        if (series.steps[0].weight > 0) Merge(series.info, series.steps[1], series.steps[0]);
    }
    End(0);
}

void HistoryMinutes::End(size_t which) {
    m_sink(m_now[which].row);
    for (Series& series : m_series) series.steps[which] = {};
    m_now[which].row.samples = 0;
}

bool HistoryMinutes::Trim() {
    const size_t before = m_series.size();
    std::erase_if(m_series, [](const Series& series) { return !series.isSeen; });
    for (Series& series : m_series) series.isSeen = false;
    if (m_series.size() == before) return false;
    m_numbers.clear();
    for (uint32_t i = 0; i < m_series.size(); ++i) {
        m_numbers[uint64_t{m_series[i].place} << 16 | m_series[i].tag] = i;
    }
    return true;
}
