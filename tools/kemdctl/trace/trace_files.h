// Which files are read, and what was found in them.
#pragma once

#include <string>
#include <vector>

#include "tools/trace_reader/trace_merge.h"

// Files as they were named; of a directory those of kemd that are there, with `mayCome` also the
// others; without any name, those of the directory in force. Empty, and told, when there are none.
[[nodiscard]] std::vector<std::string> ListTraceFiles(std::vector<std::string> named, bool mayCome);

// One line for each file on standard error, when quiet only for those that could not be read or are
// no trace files. False when there is such a one.
bool TellFacts(const TraceMerge& merge, bool isQuiet);
