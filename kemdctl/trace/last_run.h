// kemdctl trace --last-run: how the last run of the daemon ended; --list-runs: those that were
// kept.
#pragma once

#include <string>
#include <vector>

#include "kemdctl/trace/trace_files.h"

// kYes: it was stopped in order, or still runs; kNo: it was killed, or died at start; kError: no
// file can be read, or it has no exit message and its processes cannot be seen, which is told.
// While it runs, the newest one that was kept is shown, too.
[[nodiscard]] int ShowLastRun(const std::vector<std::string>& paths,
                              const std::vector<KeptPlace>& kept, bool asJson);

// kNo: there are none.
[[nodiscard]] int ListKeptRuns(const std::vector<KeptPlace>& kept, bool asJson);
