#include "performance/sample_time.h"

#include <time.h>

namespace {

int64_t Read(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

SampleTime SampleTime::Now() {
    return {Read(CLOCK_REALTIME), Read(CLOCK_MONOTONIC)};
}
