// Finds from the system's clocks whether the machine slept and whether the wall clock was set. One
// thread.
#pragma once

#include <cstdint>

inline constexpr int64_t kMs = 1'000'000;  // nanoseconds
inline constexpr int64_t kSecond = 1000 * kMs;

// In nanoseconds.
struct ClockReading {
    int64_t monotonic = 0;  // stands still while the machine sleeps
    int64_t boot = 0;       // goes on
    int64_t wall = 0;
};

struct ClockChange {
    int64_t slept = 0;  // 0: less than can be known
    int64_t step = 0;   // signed
};

class Clocks {
  public:
    // Since the reading before.
    ClockChange Compare(const ClockReading& now);
    // False when the thread was interrupted each time, so that the three are not of one moment.
    [[nodiscard]] static bool Read(ClockReading& now);

  private:
    ClockReading m_last;
    bool m_hasLast = false;
};
