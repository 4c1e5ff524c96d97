// Series: named values over time, and the table of their values at this moment, which the sources
// fill and the history stores. One thread uses a table.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class SeriesKind : uint8_t {
    kGauge,    // goes up and down
    kCounter,  // only grows; a smaller value is a counter that began again
};

// What a series is, in the words of OpenMetrics. Name and labels identify it.
struct SeriesInfo {
    std::string name;  // "disk_read_bytes": letters, digits and "_", the unit at the end
    std::string
        labels;  // `disk="sda"`: NAME="VALUE" with commas between, `\\`, `\"` and `\n` escaped
    std::string unit;  // "bytes", "seconds", "celsius"; empty: a number of things
    std::string help;  // one line
    SeriesKind kind = SeriesKind::kGauge;
    bool isReal = false;    // the stored 64 bits are a double; otherwise a whole number,
    uint32_t multiply = 1;  // which times `multiply` by `divide` is the value in `unit`
    uint32_t divide = 1;
};

// `disk_read_bytes{disk="sda"}`, or the name alone.
std::string SeriesId(const SeriesInfo& info);
// What one label's value becomes inside `labels`.
std::string SeriesLabel(const std::string& name, const std::string& value);
// A stored value in the series' unit: a gauge's number is signed, a counter's is not.
double SeriesNumber(const SeriesInfo& info, uint64_t bits);

class SeriesTable {
  public:
    // A series' place. It keeps it until it is removed; then another may get it.
    using Index = uint32_t;

    Index Add(SeriesInfo info);
    void Remove(Index index);
    // A value stays until it is set again; Clear: there is none now (its file could not be read).
    void Set(Index index, uint64_t bits) {
        m_values[index] = bits;
        m_states[index] = kPresent;
    }
    void SetReal(Index index, double value);
    void Clear(Index index) { m_states[index] = kAbsent; }

    // Changes whenever a series is added or removed.
    uint64_t Generation() const { return m_generation; }
    // All places, free ones among them.
    size_t Size() const { return m_infos.size(); }
    bool IsUsed(Index index) const { return m_states[index] != kFree; }
    bool HasValue(Index index) const { return m_states[index] == kPresent; }
    uint64_t Value(Index index) const { return m_values[index]; }
    const SeriesInfo& Info(Index index) const { return m_infos[index]; }
    std::span<const uint64_t> Values() const { return m_values; }

  private:
    enum State : uint8_t { kFree, kAbsent, kPresent };

    std::vector<SeriesInfo> m_infos;
    std::vector<uint64_t> m_values;
    std::vector<State> m_states;
    std::vector<Index> m_free;
    uint64_t m_generation = 0;
};
