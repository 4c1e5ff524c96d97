#include "modules/performance/clocks.h"

#include <time.h>

#include <cstdlib>
#include <utility>

namespace {

// Less is the reading itself.
constexpr int64_t kLeastSuspend = 100 * kMs;
constexpr int64_t kLeastStep = 20 * kMs;

int64_t ReadClock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000 * kMs + now.tv_nsec;
}

}  // namespace

// The wall clock goes on while the machine sleeps, as CLOCK_BOOTTIME does, and all three follow
// what slows or hastens them: a difference is a step.
ClockChange Clocks::Compare(const ClockReading& now) {
    const ClockReading last = std::exchange(m_last, now);
    if (!std::exchange(m_hasLast, true)) return {};
    const int64_t slept = (now.boot - now.monotonic) - (last.boot - last.monotonic);
    const int64_t step = (now.wall - now.boot) - (last.wall - last.boot);
    return {slept >= kLeastSuspend ? slept : 0, std::abs(step) >= kLeastStep ? step : 0};
}

bool Clocks::Read(ClockReading& now) {
    for (int tries = 0; tries < 3; ++tries) {
        now.monotonic = ReadClock(CLOCK_MONOTONIC);
        now.boot = ReadClock(CLOCK_BOOTTIME);
        now.wall = ReadClock(CLOCK_REALTIME);
        if (ReadClock(CLOCK_MONOTONIC) - now.monotonic < kMs) return true;
    }
    return false;
}
