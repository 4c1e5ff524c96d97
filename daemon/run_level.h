// Finds out whether a stop of the daemon is part of a shutdown of the system.
#pragma once

#include <cstdint>

inline constexpr int32_t kRunLevelHalt = 0;
inline constexpr int32_t kRunLevelPlainStop = 5;
inline constexpr int32_t kRunLevelReboot = 6;
inline constexpr int32_t kRunLevelUnknown = -1;

// The run level that the system changes to; on systems without systemd any number that they report.
// Blocks for about three seconds when there is no run-level file. Initial thread only.
int32_t DetectRunLevel();
