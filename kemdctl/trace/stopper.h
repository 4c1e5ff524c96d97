// Ends waiting: by the interrupt key, by SIGTERM, and at a time-out. One object at a time, for a
// process that waits in poll; nothing is called while it waits.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <optional>

class Stopper {
  public:
    // The time-out in milliseconds.
    explicit Stopper(std::optional<int64_t> timeout);
    Stopper(const Stopper&) = delete;
    Stopper& operator=(const Stopper&) = delete;
    ~Stopper();

    [[nodiscard]] bool IsInterrupted() const;
    [[nodiscard]] bool IsOver() const;

  private:
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> m_end;
    struct sigaction m_oldInterrupt = {};
    struct sigaction m_oldTermination = {};
    struct sigaction m_oldAlarm = {};
};
