// Values of series as people read them: bytes in binary units, shares of time as percent, counters
// as rates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "performance/series.h"

// The history counts in nanoseconds.
inline constexpr int64_t kNsPerMs = 1'000'000;
inline constexpr int64_t kSecond = 1000 * kNsPerMs;
inline constexpr int64_t kMinute = 60 * kSecond;

// How values of one series are shown. Values are in the series' unit, of a counter per second.
class ValueFormat {
  public:
    // `cores`: how many processors a series of all of them (cpu_...) is the sum of, which is then
    // shown as a share of all; 0 when that is not known: a share of one.
    explicit ValueFormat(const SeriesInfo& info, size_t cores = 0);

    // "1.2 MiB/s", "34%", "48.5 °C", "12.3k/s"; "-" for what is no number.
    [[nodiscard]] std::string Text(double value) const;
    // The unit without a number: "bytes/s", "%", "°C"; empty for a number of things.
    [[nodiscard]] std::string Unit() const;
    // What a value is multiplied by to be in that unit.
    [[nodiscard]] double Factor() const { return m_factor; }
    // The next round value that is not below: 1, 2 or 5 and zeros, of bytes a power of two. For
    // axes.
    [[nodiscard]] double RoundUp(double value) const;

  private:
    enum class Scale : uint8_t { kPlain, kBinary, kDecimal, kPercent };
    Scale m_scale = Scale::kPlain;
    double m_factor = 1;
    std::string m_unit;  // after the number
};

// Processors that the series are about.
[[nodiscard]] size_t CountCores(std::span<const SeriesInfo> series);

// The values of its labels, in order.
[[nodiscard]] std::vector<std::string> LabelValues(const SeriesInfo& info);
// "disk_read_bytes/sda": the name, and the values of the labels, each after a slash.
[[nodiscard]] std::string ShortId(const SeriesInfo& info);

// "500ms", "10s", "1m", "2h30m", "3d".
[[nodiscard]] std::string SpanText(int64_t nanoseconds);

// Local time of the daemon's zone: "2026-11-22 14:03:00.000".
[[nodiscard]] std::string TimeText(int64_t wall);
// The part of TimeText that differs within a span: of one day only the time, milliseconds only for
// steps below a second.
[[nodiscard]] std::string TimeText(int64_t wall, int64_t from, int64_t to, int64_t step);
