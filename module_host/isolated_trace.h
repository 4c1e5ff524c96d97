// The trace of a module's own process: a pipe to the daemon, which has the files.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/unique_fd.h"

// Every record and message from now on is one write to the pipe; `level` is the level in force,
// which another process changes. Before the first thread. A child of a fork writes nothing.
void TraceToDaemon(UniqueFd pipe, const uint32_t* level);

// The tag of records that have none. It must live as long as the process.
void SetOwnTag(const char* tag);

// The line of a crash, as a record of its own; for the crash handler.
void WriteCrash(std::string_view line);
// Of a crash in a call: the module of this process in the thread that calls it, null in others.
const char* CalledModule();
