// Which series moved when alarms began.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "modules/performance/alarms.h"
#include "performance/sample_time.h"

// For all alarms of one sample: the history is read once, when the first asks.
class Moved {
  public:
    Moved(std::string history, const SampleTime& now, int64_t periodNs)
        : m_history(std::move(history)), m_now(now), m_periodNs(periodNs) {}

    // "disk_written_bytes{disk="sda"} 1.2e+06 bytes/s (was 340), ...": the three that changed most
    // in the last half minute, compared with five minutes before it, without those of the alarm
    // itself. Empty when the history cannot say.
    [[nodiscard]] std::string Text(const AlarmEvent& alarm);

  private:
    void Read();

    std::string m_history;
    SampleTime m_now;
    int64_t m_periodNs;
    bool m_isRead = false;
    std::vector<std::pair<SeriesInfo, std::string>> m_changes;  // with their texts, the first first
};
