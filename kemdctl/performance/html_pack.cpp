#include "kemdctl/performance/html_pack.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace {

// 1/256 in the exponent is 0.4 % of a rate.
constexpr double kStepsOfRates = 256;
constexpr double kRangeOfRates = 1e6;
constexpr double kStepsOfGauges = 4095;

struct Bounds {
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();
    bool isWhole = true;
};

Bounds BoundsOf(std::span<const std::vector<HistoryPoint>> points) {
    Bounds bounds;
    for (const auto& part : points) {
        for (const HistoryPoint& point : part) {
            if (!std::isfinite(point.minimum) || !std::isfinite(point.maximum)) continue;
            bounds.low = std::min(bounds.low, point.minimum);
            bounds.high = std::max(bounds.high, point.maximum);
            bounds.isWhole = bounds.isWhole && point.minimum == std::trunc(point.minimum) &&
                             point.maximum == std::trunc(point.maximum);
        }
    }
    return bounds;
}

class PackedColumn {
  public:
    explicit PackedColumn(bool isDifference) : m_isDifference(isDifference) {}

    // In order; `step` grows.
    void Put(uint32_t step, int64_t value) {
        if (step > m_next) {
            PutRun();
            PutNumber(1);
            PutNumber(step - m_next);
        }
        m_next = step + 1;
        if (m_hasValue && value == m_value) {
            ++m_run;
            return;
        }
        PutRun();
        const int64_t number = m_isDifference ? value - m_value : value;
        PutNumber(2 + (m_isDifference ? ZigZag(number) : static_cast<uint64_t>(number)));
        m_value = value;
        m_hasValue = true;
    }
    // Up to `count` steps.
    std::string Finish(uint32_t count) {
        PutRun();
        if (m_next < count) {
            PutNumber(1);
            PutNumber(count - m_next);
        }
        return std::move(m_bytes);
    }

  private:
    static uint64_t ZigZag(int64_t number) {
        return number < 0 ? static_cast<uint64_t>(-number) * 2 - 1
                          : static_cast<uint64_t>(number) * 2;
    }
    void PutRun() {
        if (m_run == 0) return;
        PutNumber(0);
        PutNumber(m_run);
        m_run = 0;
    }
    void PutNumber(uint64_t number) {
        for (; number >= 0x80; number >>= 7) m_bytes += static_cast<char>(number | 0x80);
        m_bytes += static_cast<char>(number);
    }

    bool m_isDifference;
    bool m_hasValue = false;
    int64_t m_value = 0;
    uint32_t m_next = 0;
    uint32_t m_run = 0;
    std::string m_bytes;
};

std::string Base64(std::string_view bytes) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t at = 0; at < bytes.size(); at += 3) {
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) {
            const char byte = at + i < bytes.size() ? bytes[at + i] : '\0';
            group = group << 8 | static_cast<unsigned char>(byte);
        }
        for (int shift = 18; shift >= 0; shift -= 6) text += kAlphabet[group >> shift & 63];
    }
    const size_t missing = (3 - bytes.size() % 3) % 3;
    text.replace(text.size() - missing, missing, missing, '=');
    return text;
}

class Scale {
  public:
    explicit Scale(const PackedSeries& series) : m_series(series) {}
    [[nodiscard]] int64_t operator()(double value) const {
        const double number = m_series.isLogarithmic
                                  ? std::log1p(std::max(value, 0.0) / m_series.low) * kStepsOfRates
                                  : (value - m_series.low) / m_series.quantum;
        return std::llround(number);
    }

  private:
    const PackedSeries& m_series;
};

// The step of a point whose time is the end of it.
std::optional<uint32_t> StepOf(const PagePart& part, int64_t wall) {
    const int64_t offset = wall - part.from;
    const int64_t step =
        part.isFine ? (offset + part.step / 2) / part.step : (offset - 1) / part.step;
    if (offset < -part.step / 2 || step >= part.count) return std::nullopt;
    return static_cast<uint32_t>(std::max<int64_t>(step, 0));
}

// A history that is older has minutes and hours alone: such a point fills all steps of its time.
uint32_t FilledFrom(const PagePart& part, uint32_t step, int64_t wall, int64_t before) {
    constexpr int64_t kMinute = 60'000'000'000;
    for (const int64_t span : {60 * kMinute, kMinute}) {
        if (wall % span != 0 || span <= part.step || wall - before < span) continue;
        return step - std::min(static_cast<uint32_t>(span / part.step) - 1, step);
    }
    return step;
}

struct Columns {
    PackedColumn means{true};
    PackedColumn below{false};
    PackedColumn above{false};
};

std::string PackPart(const Scale& scale, const PagePart& part,
                     const std::vector<HistoryPoint>& points) {
    Columns columns;
    uint32_t next = 0;
    int64_t before = std::numeric_limits<int64_t>::min() / 2;
    for (const HistoryPoint& point : points) {
        const auto step = StepOf(part, point.wall);
        const bool isThere = std::isfinite(point.minimum) && std::isfinite(point.maximum);
        if (!step || *step < next || !isThere) continue;
        const int64_t mean = scale(std::clamp(point.mean, point.minimum, point.maximum));
        const int64_t below = mean - scale(point.minimum);
        const int64_t above = scale(point.maximum) - mean;
        const uint32_t first = part.isFine ? *step : FilledFrom(part, *step, point.wall, before);
        for (uint32_t each = std::max(first, next); each <= *step; ++each) {
            columns.means.Put(each, mean);
            columns.below.Put(each, below);
            columns.above.Put(each, above);
        }
        next = *step + 1;
        before = point.wall;
    }
    if (next == 0) return {};
    std::string bytes = columns.means.Finish(part.count);
    if (!part.isFine) bytes += columns.below.Finish(part.count) + columns.above.Finish(part.count);
    return Base64(bytes);
}

}  // namespace

PackedSeries PackSeries(const SeriesInfo& info, std::span<const PagePart> parts,
                        std::span<const std::vector<HistoryPoint>> points) {
    PackedSeries series;
    series.parts.resize(parts.size());
    const Bounds bounds = BoundsOf(points);
    if (bounds.low > bounds.high) return series;
    series.isEmpty = false;
    series.high = bounds.high;
    const double range = bounds.high - bounds.low;
    if (info.kind == SeriesKind::kCounter) {
        series.isLogarithmic = true;
        series.low = bounds.high > 0 ? bounds.high / kRangeOfRates : 1;
        series.quantum = kStepsOfRates;
    } else {
        const bool isExact = bounds.isWhole && range <= kStepsOfGauges;
        series.low = bounds.low;
        series.quantum = isExact || !(range > 0) ? 1 : range / kStepsOfGauges;
    }
    const Scale scale(series);
    for (size_t i = 0; i < parts.size(); ++i) {
        series.parts[i] = PackPart(scale, parts[i], points[i]);
    }
    return series;
}
