#include "performance/history_steps.h"

#include <algorithm>
#include <bit>
#include <numeric>
#include <tuple>

namespace {

constexpr double kNanoseconds = 1e9;
constexpr double kLeastWeight = 1e-3;

// Division that rounds down, for times before 1970 too.
int64_t Multiples(int64_t value, int64_t step) {
    return value / step - (value % step < 0 ? 1 : 0);
}

void Merge(HistoryPoint& into, double& weight, const HistoryPoint& point, double more) {
    into.minimum = std::min(into.minimum, point.minimum);
    into.maximum = std::max(into.maximum, point.maximum);
    into.mean += (point.mean - into.mean) * more / (weight + more);
    into.last = point.last;
    weight += more;
}

}  // namespace

std::optional<double> CounterGrowth(const SeriesInfo& info, uint64_t before, uint64_t now) {
    if (!info.isReal) {
        if (now == before) return 0;
        if (now < before) return {};
        return static_cast<double>(now - before) * info.multiply / info.divide;
    }
    const double grown = std::bit_cast<double>(now) - std::bit_cast<double>(before);
    if (!(grown >= 0)) return {};
    return grown;
}

std::optional<double> CounterRate::Next(const SeriesInfo& info, uint32_t boot, int64_t monotonic,
                                        uint64_t bits) {
    // 1 ms: two samples of one moment, where a suspended process wakes up, are no time to divide
    // by.
    constexpr int64_t kLeast = 1'000'000;
    const int64_t since = monotonic - m_monotonic;
    const bool isNext = m_known && boot == m_boot && since >= kLeast;
    const uint64_t before = m_bits;
    Know(boot, monotonic, bits);
    if (!isNext) return std::nullopt;
    const auto grown = CounterGrowth(info, before, bits);
    if (!grown) return std::nullopt;
    m_seconds = static_cast<double>(since) / kNanoseconds;
    // Most counters of a host stand still, and this is for each series once a sample.
    if (*grown == 0) return 0;
    return *grown / m_seconds;
}

void CounterRate::Know(uint32_t boot, int64_t monotonic, uint64_t bits) {
    m_known = true;
    m_boot = boot;
    m_monotonic = monotonic;
    m_bits = bits;
}

void StepMerger::Reserve(size_t samples) {
    const size_t wanted = m_points.size() + samples;
    if (m_step > 0 || wanted <= m_points.capacity()) return;
    m_points.reserve(std::max(wanted, 2 * m_points.size()));
}

void StepMerger::Add(HistoryKey key, const HistoryPoint& point, double weight) {
    if (weight != 0 && !m_entries.empty() && m_points.back().wall == point.wall) {
        Entry& last = m_entries.back();
        if (last.weight != 0 && last.key <= key) {
            Merge(m_points.back(), last.weight, point, weight);
            last.key = key;
            return;
        }
    }
    if (weight != 0 || !m_entries.empty()) m_entries.push_back({key, weight});
    m_points.push_back(point);
}

void StepMerger::AddSample(uint32_t boot, const SampleTime& time, uint64_t bits) {
    HistoryPoint point;
    double weight = 1;
    point.last = SeriesNumber(m_info, bits);
    point.minimum = point.mean = point.maximum = point.last;
    if (m_info.kind == SeriesKind::kCounter) {
        const std::optional<double> rate = m_rate.Next(m_info, boot, time.monotonic, bits);
        if (!rate) return;
        point.minimum = point.mean = point.maximum = *rate;
        weight = m_rate.Seconds();
    }
    point.wall = m_step > 0 ? (Multiples(time.wall, m_step) + 1) * m_step : time.wall;
    Add({boot, time.monotonic}, point, m_step > 0 ? weight : 0);
}

void StepMerger::AddRow(HistoryKey key, int64_t begin, const HistoryPoint& point, double weight) {
    if (point.wall <= m_span.from || begin >= m_span.to) return;
    HistoryPoint step = point;
    if (m_step >= point.wall - begin) step.wall = (Multiples(begin, m_step) + 1) * m_step;
    Add(key, step, std::max(weight, kLeastWeight));
}

void StepMerger::Finish() {
    const auto isOver = [](const HistoryPoint& a, const HistoryPoint& b) {
        return a.wall >= b.wall;
    };
    if (std::adjacent_find(m_points.begin(), m_points.end(), isOver) == m_points.end()) return;
    if (m_entries.empty()) {
        std::stable_sort(
            m_points.begin(), m_points.end(),
            [](const HistoryPoint& a, const HistoryPoint& b) { return a.wall < b.wall; });
    } else {
        SortAndMerge();
    }
}

void StepMerger::SortAndMerge() {
    std::vector<size_t> order(m_points.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        if (m_points[a].wall != m_points[b].wall) return m_points[a].wall < m_points[b].wall;
        return std::tie(m_entries[a].key, a) < std::tie(m_entries[b].key, b);
    });
    std::vector<HistoryPoint> points;
    points.reserve(order.size());
    double weight = 0;
    for (const size_t i : order) {
        const double more = m_entries[i].weight;
        if (weight != 0 && more != 0 && points.back().wall == m_points[i].wall) {
            Merge(points.back(), weight, m_points[i], more);
        } else {
            points.push_back(m_points[i]);
            weight = more;
        }
    }
    m_points.swap(points);
}
