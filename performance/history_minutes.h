// Minutes and hours of each series from its samples: minimum, mean, maximum and last, of counters
// those of their rates. One thread uses an object; it allocates only for new series.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "performance/history_block.h"
#include "performance/history_points.h"
#include "performance/history_steps.h"

// A part of a row: what the history keeps of one series for a minute or hour.
struct StepValues {
    double minimum = 0;  // in stored units, of counters per second
    double sum = 0;      // each value times its weight
    double maximum = 0;
    uint64_t least = 0;  // of a gauge exactly
    uint64_t most = 0;
    uint64_t last = 0;
    double weight = 0;  // 0: none
    [[nodiscard]] double Mean() const { return weight > 0 ? sum / weight : minimum; }
    void SetWeight(double wanted) {
        sum = Mean() * wanted;
        weight = wanted;
    }
};

// The columns of a series in a row, and what the row before in its block says about them.
struct StepCells {
    std::array<uint64_t, 4> parts{};
    bool hasBefore = false;
    uint64_t lastBefore = 0;
    int64_t nanoseconds = 0;  // since then
};

// As the columns of a row, and back: see docs/performance-format.md.
void PackStep(const SeriesInfo& info, const StepValues& values, StepCells& cells);
HistoryPoint UnpackStep(const SeriesInfo& info, const StepCells& cells);
StepValues UnpackStepValues(const SeriesInfo& info, const StepCells& cells);
// Whether the part is a double by itself.
bool IsRealPart(const SeriesInfo& info, uint32_t part);

// A row that has come to its end.
struct StepRow {
    uint32_t log = 0;  // kMinutes or kHours
    uint32_t boot = 0;
    SampleTime time;  // of its last sample
    uint64_t samples = 0;
    uint64_t length = 0;  // nanoseconds from its first to its last sample
    uint64_t rateMs = 0;  // milliseconds that its rates are about
};

// Row `i` of a block of minutes or hours; false when it is none.
bool TakeStepRow(const BlockRows& rows, size_t i, StepRow& row);
// Calls take(place, tag, cells) for each series that the row has in whole.
void ForEachStep(
    const BlockRows& rows, size_t i,
    const std::function<void(uint32_t place, uint16_t tag, const StepCells& cells)>& take);
// How much it counts when several are merged: samples of a gauge, seconds of a counter.
double StepWeight(const SeriesInfo& info, const StepRow& row);

class HistoryMinutes {
  public:
    struct Series {
        uint32_t place = 0;
        uint16_t tag = 0;
        SeriesInfo info;
        CounterRate rate;
        bool isSeen = false;              // since the last Trim
        std::array<StepValues, 2> steps;  // of the current minute and hour
        std::array<uint64_t, 2> block{};  // for the owner: where the columns below are
        std::array<uint32_t, 2> column{};
    };
    // Takes a row; Of(series, log) are its values.
    using Sink = std::function<void(const StepRow&)>;

    explicit HistoryMinutes(Sink sink) : m_sink(std::move(sink)) {}

    // The number of the series for Set. Numbers change when Trim is called.
    uint32_t Number(uint32_t place, uint16_t tag, const SeriesInfo& info);
    std::vector<Series>& All() { return m_series; }

    // A sample begins. What it ends goes to the sink first.
    void Begin(uint32_t boot, const SampleTime& time);
    void Set(uint32_t number, uint64_t bits);
    // As Set, for a sample that the minutes in the file have already.
    void Know(uint32_t number, uint32_t boot, const SampleTime& time, uint64_t bits);
    // A minute from the file, for the current hour; AddStep for each of its series.
    void AddMinute(const StepRow& row);
    void AddStep(uint32_t number, const StepValues& values);
    // Forgets series without a value since the last call; true when numbers have changed.
    bool Trim();

  private:
    struct Current {
        int64_t index = 0;  // of the minute or hour since 1970
        int64_t first = 0;  // monotonic time of its first sample
        StepRow row;        // no samples: none yet
    };
    void EndMinute();
    void End(size_t which);
    void BeginHour(uint32_t boot, int64_t wall, int64_t first);

    Sink m_sink;
    std::vector<Series> m_series;
    std::unordered_map<uint64_t, uint32_t> m_numbers;  // by place and tag
    std::array<Current, 2> m_now;
    uint32_t m_boot = 0;
    SampleTime m_time;
};
