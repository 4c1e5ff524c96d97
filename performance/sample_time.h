// Times of samples, and the marks on the time axis.
#pragma once

#include <cstdint>
#include <string>

// Both clocks of one moment, in nanoseconds.
struct SampleTime {
    int64_t wall = 0;       // CLOCK_REALTIME: may be set
    int64_t monotonic = 0;  // CLOCK_MONOTONIC: of this boot only, stands still in suspend

    static SampleTime Now();
};

enum class MarkKind : uint8_t {
    kStart,      // the sampler began; text: version and period
    kStop,       // and ended in order
    kGap,        // samples were missed; value: how many
    kSuspend,    // the machine slept; value: nanoseconds
    kClockStep,  // the wall clock was set; value: by how many nanoseconds, signed
    kReboot,     // the first sample of another boot; text: its boot id
    kAlarm,      // a threshold was crossed; text: the trace record
    kAlarmEnd,   // and no longer is
    kProcesses,  // the processes that used most in this period; text: a line each, see
                 // docs/performance-format.md
};

struct Mark {
    SampleTime time;
    MarkKind kind{};
    int64_t value = 0;
    std::string text;
};
