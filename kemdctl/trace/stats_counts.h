// What --stats counts with: a histogram over time, and how often texts occur.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class TimeHistogram {
  public:
    struct Bar {
        uint64_t count = 0;
        int64_t residentKb = -1;  // the highest; -1: none
    };
    static constexpr int64_t kMostBars = 60;

    // `time` in milliseconds, in any order.
    void Add(int64_t time, int64_t residentKb);

    // Milliseconds.
    [[nodiscard]] int64_t Unit() const { return m_unit; }
    // By number of the step, time / Unit(); steps without records are left out.
    [[nodiscard]] const std::map<int64_t, Bar>& Bars() const { return m_bars; }

  private:
    void Coarsen();

    int64_t m_unit = 10;
    std::map<int64_t, Bar> m_bars;
};

// "4.250 s", "3 min 4 s", "2 d 5 h".
[[nodiscard]] std::string DurationText(int64_t milliseconds);

// Counts how often texts occur, up to a limit of different ones.
class Tally {
  public:
    explicit Tally(size_t limit) : m_limit(limit) {}

    void Count(std::string_view text);

    // The `most` frequent ones, the first of them first.
    [[nodiscard]] std::vector<std::pair<std::string_view, uint64_t>> Top(size_t most) const;
    // Texts that came when the table was full.
    [[nodiscard]] uint64_t LeftOut() const { return m_leftOut; }

  private:
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;  // NOLINT(readability-identifier-naming): the library's name
    };

    size_t m_limit;
    uint64_t m_leftOut = 0;
    std::unordered_map<std::string, uint64_t, Hash, std::equal_to<>> m_counts;
};

// The text with each number, decimal or after 0x, as one #, so that texts of one kind are the
// same. As far as it is worth comparing.
[[nodiscard]] std::string NormaliseText(std::string_view text);
