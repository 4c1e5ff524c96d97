#include "performance/history_steps.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace {

constexpr double kNanoseconds = 1e9;

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

std::optional<double> CounterRate::Next(uint32_t boot, int64_t monotonic, uint64_t bits) {
    std::optional<double> rate;
    // 1 ms: two samples of one moment, where a suspended process wakes up, are no time to divide
    // by.
    constexpr int64_t kLeast = 1'000'000;
    const bool isNext = m_known && boot == m_boot && monotonic - m_monotonic >= kLeast;
    const double grown = m_info.isReal
                             ? std::bit_cast<double>(bits) - std::bit_cast<double>(m_bits)
                             : static_cast<double>(bits - m_bits) * m_info.multiply / m_info.divide;
    const bool isLess = m_info.isReal ? !(grown >= 0) : bits < m_bits;
    if (isNext && !isLess) {
        m_seconds = static_cast<double>(monotonic - m_monotonic) / kNanoseconds;
        rate = grown / m_seconds;
    }
    m_known = true;
    m_boot = boot;
    m_monotonic = monotonic;
    m_bits = bits;
    return rate;
}

void StepMerger::Add(const HistoryPoint& point, double weight, bool isStep) {
    if (isStep && !m_points.empty() && m_points.back().wall == point.wall &&
        m_weights.back() != 0) {
        Merge(m_points.back(), m_weights.back(), point, weight);
        return;
    }
    m_points.push_back(point);
    m_weights.push_back(isStep ? weight : 0);
}

void StepMerger::AddSample(uint32_t boot, const SampleTime& time, uint64_t bits) {
    HistoryPoint point;
    double weight = 1;
    point.last = SeriesNumber(m_info, bits);
    point.minimum = point.mean = point.maximum = point.last;
    if (m_info.kind == SeriesKind::kCounter) {
        const std::optional<double> rate = m_rate.Next(boot, time.monotonic, bits);
        if (!rate) return;
        point.minimum = point.mean = point.maximum = *rate;
        weight = m_rate.Seconds();
    }
    if (time.wall < m_span.from || time.wall >= m_span.to) return;
    point.wall = m_step > 0 ? (Multiples(time.wall, m_step) + 1) * m_step : time.wall;
    Add(point, weight, m_step > 0);
}

void StepMerger::AddRow(int64_t begin, const HistoryPoint& point, double weight) {
    if (point.wall <= m_span.from || begin >= m_span.to) return;
    HistoryPoint step = point;
    if (m_step >= point.wall - begin) step.wall = (Multiples(begin, m_step) + 1) * m_step;
    Add(step, weight, true);
}

void StepMerger::Finish() {
    std::vector<size_t> order(m_points.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return m_points[a].wall < m_points[b].wall; });
    std::vector<HistoryPoint> points;
    std::vector<double> weights;
    points.reserve(order.size());
    for (const size_t i : order) {
        const bool joins = !points.empty() && m_weights[i] != 0 && weights.back() != 0 &&
                           points.back().wall == m_points[i].wall;
        if (joins) {
            Merge(points.back(), weights.back(), m_points[i], m_weights[i]);
        } else {
            points.push_back(m_points[i]);
            weights.push_back(m_weights[i]);
        }
    }
    m_points.swap(points);
}
