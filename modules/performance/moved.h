// Which series moved when an alarm began.
#pragma once

#include <string>

#include "modules/performance/alarms.h"
#include "performance/sample_time.h"

// "disk_written_bytes{disk="sda"} 1.2e+06 bytes/s (was 340), ...": the three that changed most in
// the last half minute, compared with five minutes before it, without those of the alarm itself.
// Empty when the history cannot say.
std::string MovedSeries(const std::string& history, const SampleTime& now, int64_t periodNs,
                        const AlarmEvent& alarm);
