#include "switch_library/restart_plan.h"

#include <algorithm>

using std::chrono::seconds;

RestartPlan::Clock::time_point RestartPlan::Next(Clock::time_point now) {
    constexpr std::chrono::hours kWindow(1);
    constexpr size_t kMostStarts = 10;
    constexpr seconds kLongest(60);
    while (!m_starts.empty() && m_starts.front() + kWindow <= now) m_starts.pop_front();
    Clock::time_point due =
        now + std::min(seconds(1) * (1 << std::min<size_t>(m_starts.size(), 6)), kLongest);
    if (m_starts.size() >= kMostStarts) {
        due = std::max(due, *(m_starts.end() - kMostStarts) + kWindow);
    }
    m_starts.push_back(due);
    return due;
}
