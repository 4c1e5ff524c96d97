// Thresholds over the series of the host: when a value begins to be beyond its limit for long
// enough, and when that is over. One thread. Throws std::bad_alloc alone.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "modules/performance/settings.h"
#include "performance/sample_time.h"
#include "performance/series.h"

struct AlarmEvent {
    bool isEnd = false;
    double value = 0;
    std::string text;  // value, limit and since when
    // The series that it is about, which move with it of course.
    std::string labels;
    std::array<const char*, 3> names{};  // null: fewer
};

// A wall clock in nanoseconds as local date and time.
std::string WallText(int64_t wall);

class Alarms {
  public:
    // Alarms that are off now, or within the new limits, end at the next sample.
    void Configure(const std::array<Limit, kRules>& limits) { m_limits = limits; }
    // Compares a sample; `events` is what began or ended with it.
    void Compare(const SeriesTable& table, const SampleTime& time, std::vector<AlarmEvent>& events);
    // Another table from now on.
    void ForgetTable() { m_generation = UINT64_MAX; }
    // Those that are not over, with "; " between; empty: none.
    [[nodiscard]] std::string Texts() const;

  private:
    // What one rule watches: a file system, a sensor.
    struct Subject {
        std::array<SeriesTable::Index, 3> series{};
        unsigned found = 0;  // a bit for each of them
        // Of counters: the sample before, and what was counted within the time.
        std::optional<std::pair<int64_t, double>> last;
        std::deque<std::pair<int64_t, double>> recent;
        std::optional<SampleTime> crossed;  // to the other side of the limit that counts next
        std::optional<SampleTime> since;    // of an alarm
        double value = 0;
        double worst = 0;
        int begins = 0;  // one soon after the other
        int64_t lastBegin = 0;
    };
    using Subjects = std::map<std::string, Subject>;  // by labels

    void Find(const SeriesTable& table);
    void Take(const SeriesInfo& info, SeriesTable::Index index);
    // Nothing: there is none, or not yet.
    [[nodiscard]] std::optional<double> Value(Rule rule, Subject& subject, const SeriesTable& table,
                                              int64_t now) const;
    void CompareRule(Rule rule, const SeriesTable& table, const SampleTime& time,
                     std::vector<AlarmEvent>& events);
    void Judge(Rule rule, const std::string& labels, Subject& subject, const SampleTime& time,
               std::vector<AlarmEvent>& events) const;
    [[nodiscard]] std::string Text(Rule rule, const std::string& labels, double value) const;

    std::array<Limit, kRules> m_limits;
    std::array<Subjects, kRules> m_subjects;
    uint64_t m_generation = UINT64_MAX;
};
