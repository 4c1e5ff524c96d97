// Which series moved when an alarm began.
#pragma once

#include <string>

#include "performance/sample_time.h"

// "disk_written_bytes{disk="sda"} 1.2e+06 (was 340), ...": the three that changed most in the last
// half minute, compared with five minutes before it, without those with exactly these `labels`
// (empty: none is left out). Empty when the history cannot say.
std::string MovedSeries(const std::string& history, const SampleTime& now, int64_t periodNs,
                        const std::string& labels);
