// Histories for tests: series with values that a function of the second supplies.
#pragma once

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "performance/history_reader.h"
#include "performance/history_writer.h"
#include "tests/world.h"

constexpr int64_t kNs = 1'000'000'000;
constexpr int64_t kNoon = 1794744000;  // 2026-11-15 12:00:00 UTC

class MadeHistory {
  public:
    using Value = std::function<double(int64_t second)>;

    explicit MadeHistory(std::string path = "/tmp/history", int64_t start = kNoon)
        : m_path(std::move(path)), m_start(start) {}

    // What a value counts is as SeriesInfo says; NaN: there is none.
    void Add(SeriesInfo info, Value value) {
        m_places.push_back(m_table.Add(std::move(info)));
        m_values.push_back(std::move(value));
    }
    void Gauge(const std::string& name, const std::string& unit, Value value,
               const std::string& labels = "") {
        Add({name, labels, unit, "What " + name + " is."}, std::move(value));
    }
    // The function is of the rate.
    void Counter(const std::string& name, const std::string& unit, const Value& rate,
                 const std::string& labels = "", uint32_t divide = 1) {
        SeriesInfo info{name, labels, unit, "How many.", SeriesKind::kCounter, false, 1, divide};
        Add(std::move(info), [rate, divide, sum = 1000.0](int64_t second) mutable {
            return sum += std::round(rate(second) * divide);
        });
    }
    void Mark(int64_t second, MarkKind kind, int64_t value = 0, const std::string& text = "") {
        m_marks.push_back({Time(second), kind, value, text});
    }
    // A sample for each second from `from` on, without those of `gap`.
    void Write(int64_t seconds, HistorySpan gap = {}) {
        std::filesystem::create_directories(std::filesystem::path(m_path).parent_path());
        std::string error;
        const auto writer =
            HistoryWriter::Open({m_path, uint64_t{4} << 20, kNs, "web3", "boot-1"}, error);
        ASSERT_TRUE(writer) << error;
        for (int64_t second = 0; second < seconds; ++second) {
            for (const ::Mark& mark : m_marks) {
                if (mark.time.wall == Time(second).wall) writer->Mark(mark);
            }
            for (size_t i = 0; i < m_places.size(); ++i) Set(i, m_values[i](second));
            if (second < gap.from || second >= gap.to) writer->Append(Time(second), m_table);
        }
    }

  private:
    [[nodiscard]] SampleTime Time(int64_t second) const {
        return {(m_start + second) * kNs, (1000 + second) * kNs};
    }
    void Set(size_t number, double value) {
        const SeriesTable::Index place = m_places[number];
        if (std::isnan(value)) {
            m_table.Clear(place);
        } else if (m_table.Info(place).isReal) {
            m_table.SetReal(place, value);
        } else {
            m_table.Set(place, static_cast<uint64_t>(static_cast<int64_t>(value)));
        }
    }

    std::string m_path;
    int64_t m_start;
    SeriesTable m_table;
    std::vector<SeriesTable::Index> m_places;
    std::vector<Value> m_values;
    std::vector<::Mark> m_marks;
};
