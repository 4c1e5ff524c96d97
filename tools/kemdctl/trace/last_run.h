// kemdctl trace --last-run: how the last run of the daemon ended.
#pragma once

#include <string>
#include <vector>

// kYes: it was stopped in order, or still runs; kNo: it was killed, or died at start; kError: no
// file can be read, or it has no exit message and its processes cannot be seen, which is told.
[[nodiscard]] int ShowLastRun(const std::vector<std::string>& paths, bool asJson);
