// The side of the module: a process that is prepared like the daemon's and makes the calls.
#pragma once

#include "module_host/call_board.h"

// Never returns. Posts `done` once when it is ready, then once for each call that is asked for.
// `path` is absolute. The process dies with the one that made it.
[[noreturn]] void ServeCalls(CallBoard& board, const char* path);
