// The settings of the module performance, see docs/performance-module.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kemd/config.h"

enum class Rule : uint8_t {
    kFileSystemFull,     // percent
    kMemoryAvailable,    // percent
    kMemoryPressure,     // percent of the time
    kTemperatureMargin,  // degrees below the limit of the sensor
    kOomKill,            // so many within the time, as the next two
    kDiskErrors,
    kInterfaceErrors,
};
inline constexpr size_t kRules = 7;

struct Limit {
    int64_t begin = 0;   // 0: off
    int64_t end = 0;     // on the other side of `begin`, or the same
    int64_t timeMs = 0;  // it is beyond `begin` for so long, then not beyond `end` for so long
};

struct PerformanceSettings {
    int64_t periodMs = 0;
    int64_t size = 0;
    int64_t syncMs = 0;
    int isWithProcesses = 0;
    std::array<Limit, kRules> limits;
};

// 0, or the first error of kemd/config.h; then `settings` is not to be used.
int ReadSettings(const KemdConfig* config, PerformanceSettings& settings);
