// Chooses records and hands them to what becomes of them, to the end of the files or as long as
// they are written.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kemdctl/trace/options.h"

// The exit code.
[[nodiscard]] int RunRecords(const TraceOptions& options, const std::vector<std::string>& files);
