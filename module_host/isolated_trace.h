// The trace of a module's own process: a pipe to the daemon, which has the files.
#pragma once

#include <cstdint>

#include "base/unique_fd.h"

// Every record and message from now on is one write to the pipe; `level` is the level in force,
// which another process changes. Before the first thread. A child of a fork writes nothing.
void TraceToDaemon(UniqueFd pipe, const uint32_t* level);

// The tag of records that have none. It must live as long as the process.
void SetOwnTag(const char* tag);
