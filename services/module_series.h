// The series that modules register (include/kemd/performance.h). Those of this process are in one
// region of memory, those of each isolated module in one that it shares with the daemon. A region
// is never larger than what was used of it, and nothing in a shared one is trusted.
#pragma once

// The region of this process, which a module's own process got from the daemon: 0 or an errno
// number. Before the first series, by the only thread.
[[nodiscard]] int AdoptSeriesRegion(int fd);
