// What a daemon would mind about the difference between two views of the module's process.
#pragma once

#include <string>
#include <vector>

#include "module_host/process_view.h"

using Findings = std::vector<std::string>;

// The symbols that the module shows and the daemon shows too: the loader binds the module's own
// uses of them to the daemon's.
Findings ReplacedSymbols(const char* module);

// What changed during one call, or between two. `process` is also the id of the calling thread.
Findings Changes(pid_t process, const ProcessView& before, const ProcessView& after);

// What is there at the end and was not at the beginning: descriptors and child processes.
Findings LeftBehind(const ProcessView& first, const ProcessView& last);
