// kemdctl trace --stats: what the chosen records are in numbers.
#pragma once

#include <memory>

#include "kemdctl/trace/sink.h"

// Writes to standard output when it finishes. Its memory does not grow with the number of records.
[[nodiscard]] std::unique_ptr<RecordSink> MakeStatsSink(bool asJson);
