// kemdctl trace --export: the chosen records in the Trace Event Format (JSON) of timeline viewers.
#pragma once

#include <memory>
#include <string>

#include "kemdctl/trace/sink.h"

// The file is there whole when the sink has finished, or as it was. Records go to the disk as they
// come.
[[nodiscard]] std::unique_ptr<RecordSink> MakeTimelineSink(const std::string& path, bool isQuiet);
