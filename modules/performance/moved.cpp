#include "modules/performance/moved.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>

#include "modules/performance/clocks.h"
#include "performance/history_reader.h"
#include "performance/ranking.h"

namespace {

constexpr size_t kShown = 3;

// A file system, disk or sensor moves as a whole.
bool IsOf(const AlarmEvent& alarm, const SeriesInfo& info) {
    const auto isName = [&](const char* name) { return name != nullptr && info.name == name; };
    return info.labels == alarm.labels &&
           (!info.labels.empty() || std::any_of(alarm.names.begin(), alarm.names.end(), isName));
}

}  // namespace

void Moved::Read() {
    std::string error;
    const auto reader = HistoryReader::Open(m_history, error);
    if (reader == nullptr) return;
    const int64_t length = std::max(30 * kSecond, 5 * m_periodNs);
    const HistorySpan window{m_now.wall - length, m_now.wall + 1};
    const HistorySpan before{window.from - 10 * length, window.from};
    for (const RankedChange& change : RankChanges(*reader, window, before, 4 * kShown)) {
        const SeriesInfo& info = reader->Series()[change.series];
        const std::string unit = (info.unit.empty() ? "" : " " + info.unit) +
                                 (info.kind == SeriesKind::kCounter ? "/s" : "");
        char values[128];
        std::snprintf(values, sizeof values, " %.4g%s (was %.4g)", change.extreme, unit.c_str(),
                      change.before);
        m_changes.emplace_back(info, SeriesId(info) + values);
    }
}

std::string Moved::Text(const AlarmEvent& alarm) {
    if (!m_isRead) {
        m_isRead = true;
        Read();
        malloc_trim(0);  // the reader took much, for a moment
    }
    std::string text;
    size_t shown = 0;
    for (const auto& [info, change] : m_changes) {
        if (shown == kShown || IsOf(alarm, info)) continue;
        text += (shown++ > 0 ? ", " : "") + change;
    }
    return text;
}
