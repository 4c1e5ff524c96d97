// The values of the host at one moment, as `kemdctl performance live` shows them: what a sampler
// has set, counters as rates since the sample before.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "performance/history_reader.h"
#include "performance/series.h"

// NaN: there is no value.
struct LiveRow {
    std::string name;  // the values of the labels, printable
    std::vector<double> values;
};

class LiveValues {
  public:
    // A sample; `monotonic` in nanoseconds.
    void Take(const SeriesTable& table, int64_t monotonic);
    // Of the series without labels.
    [[nodiscard]] double Of(std::string_view name) const;
    [[nodiscard]] double Sum(std::span<const std::string_view> names) const;
    // A row for each set of labels that any of the series has, in natural order; a value for each
    // name.
    [[nodiscard]] std::vector<LiveRow> Rows(std::span<const std::string_view> names) const;

  private:
    struct Place {
        std::string labels;
        SeriesTable::Index index;
    };
    struct Past {
        std::string id;
        uint64_t bits = 0;
        bool isThere = false;
    };
    void Index(const SeriesTable& table);

    std::unordered_map<std::string, std::vector<Place>> m_names;
    std::vector<Past> m_past;
    std::vector<double> m_values;  // by the table's index
    uint64_t m_generation = 0;
    int64_t m_monotonic = 0;
};

// A series of a module, formatted.
struct LiveModuleSeries {
    std::string name;
    std::string value;
    double number = 0;
};

// The newest values of the modules' series in the history of this host, when there are some of the
// last minute.
class LiveModules {
  public:
    [[nodiscard]] std::vector<LiveModuleSeries> Newest(int64_t wall);

  private:
    std::unique_ptr<HistoryReader> m_reader;
};

// "eth2" before "eth10".
[[nodiscard]] bool NaturalLess(std::string_view one, std::string_view other);
