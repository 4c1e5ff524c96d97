// Finds out, when the daemon is told to stop, whether the whole system goes down.
#pragma once

#include <cstdint>

inline constexpr int32_t kRunLevelHalt = 0;
inline constexpr int32_t kRunLevelPlainStop = 5;
inline constexpr int32_t kRunLevelReboot = 6;
inline constexpr int32_t kRunLevelUnknown = -1;

// The run level that the system is heading for; on systems without systemd any number that they
// report. Blocks for about three seconds when no run-level file exists. Initial thread only.
int32_t DetectRunLevel();
