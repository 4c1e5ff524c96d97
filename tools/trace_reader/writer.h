// Whether a process of this host has a file open.
#pragma once

#include "tools/trace_reader/trace_file.h"

// False also when that cannot be seen: of other users' processes only root may ask.
[[nodiscard]] bool IsWriter(int process, const TraceFile& file);
