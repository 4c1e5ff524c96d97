// When a module that failed is started again: after 1, 2, 4 ... 60 s, at most ten times an hour.
#pragma once

#include <chrono>
#include <deque>

class RestartPlan {
  public:
    using Clock = std::chrono::steady_clock;

    // When the next start is due after a failure at `now`; it counts from then on.
    Clock::time_point Next(Clock::time_point now);
    // There was a failure before.
    [[nodiscard]] bool IsBegun() const { return !m_starts.empty(); }

  private:
    std::deque<Clock::time_point> m_starts;  // of the last hour
};
