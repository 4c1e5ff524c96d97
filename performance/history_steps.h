// Makes the points of one series from its samples, and from the minutes and hours that the history
// keeps: rates of counters, and steps of time. One thread uses an object.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "performance/history_format.h"
#include "performance/history_points.h"
#include "performance/sample_time.h"

// By how much a counter has grown, in its units; none where it began again.
std::optional<double> CounterGrowth(const SeriesInfo& info, uint64_t before, uint64_t now);

// The rate of a counter between two of its samples.
class CounterRate {
  public:
    // Units per second since the sample before. None for the first one, for one of another boot,
    // and where the counter began again.
    std::optional<double> Next(const SeriesInfo& info, uint32_t boot, int64_t monotonic,
                               uint64_t bits);
    // As Next, of a sample whose own rate nobody wants.
    void Know(uint32_t boot, int64_t monotonic, uint64_t bits);
    // Seconds that the last rate is about.
    [[nodiscard]] double Seconds() const { return m_seconds; }

  private:
    bool m_known = false;
    uint32_t m_boot = 0;
    int64_t m_monotonic = 0;
    uint64_t m_bits = 0;
    double m_seconds = 0;
};

class StepMerger {
  public:
    // `step` in nanoseconds, 0 for each sample. All that is given has to live as long as this.
    StepMerger(const SeriesInfo& info, HistorySpan span, int64_t step,
               std::vector<HistoryPoint>& points)
        : m_info(info), m_span(span), m_step(step), m_points(points) {}

    // So many samples that count come next.
    void Reserve(size_t samples);
    // In the order of recording.
    void AddSample(uint32_t boot, const SampleTime& time, uint64_t bits);
    // One that does not count, as it is before the span: the rate of the next needs it.
    void KnowSample(uint32_t boot, const SampleTime& time, uint64_t bits) {
        if (m_info.kind == SeriesKind::kCounter) m_rate.Know(boot, time.monotonic, bits);
    }
    // A minute or hour, which begins at `begin`; `point.wall` is its end. `weight`: how many
    // samples of a gauge, how many seconds of a counter.
    void AddRow(HistoryKey key, int64_t begin, const HistoryPoint& point, double weight);
    // Sorts the points by wall clock and merges what belongs to one step.
    void Finish();

  private:
    struct Entry {
        HistoryKey key;
        double weight = 0;  // 0: a sample of its own, never merged
    };
    void Add(HistoryKey key, const HistoryPoint& point, double weight);
    void SortAndMerge();

    const SeriesInfo& m_info;
    HistorySpan m_span;
    int64_t m_step;
    CounterRate m_rate;
    std::vector<HistoryPoint>& m_points;
    // Of each point; none as long as all are samples, which come in the order of recording.
    std::vector<Entry> m_entries;
};
