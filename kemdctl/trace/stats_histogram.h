// Counts records in equal steps of time, few enough for a screen.
#pragma once

#include <cstdint>
#include <map>
#include <string>

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
