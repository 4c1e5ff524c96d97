// kemdctl trace --verify: whether trace files are sound, for monitoring.
#pragma once

#include <string>
#include <vector>

// One line for each finding and for each sound file, on standard output. kYes: all are sound; kNo:
// findings; kError: one cannot be read, or is no trace file.
[[nodiscard]] int VerifyFiles(const std::vector<std::string>& paths, bool asJson);
