#include "modules/performance/moved.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>

#include "performance/history_reader.h"
#include "performance/ranking.h"

namespace {

constexpr size_t kShown = 3;
constexpr int64_t kSecond = 1'000'000'000;

// A file system, disk or sensor moves as a whole.
bool IsOf(const AlarmEvent& alarm, const SeriesInfo& info) {
    const auto isName = [&](const char* name) { return name != nullptr && info.name == name; };
    return info.labels == alarm.labels &&
           (!info.labels.empty() || std::any_of(alarm.names.begin(), alarm.names.end(), isName));
}

std::string Ranked(const std::string& history, const SampleTime& now, int64_t periodNs,
                   const AlarmEvent& alarm) {
    std::string error;
    const auto reader = HistoryReader::Open(history, error);
    if (reader == nullptr) return {};
    const int64_t length = std::max(30 * kSecond, 5 * periodNs);
    const HistorySpan window{now.wall - length, now.wall + 1};
    const HistorySpan before{window.from - 10 * length, window.from};
    std::string text;
    size_t shown = 0;
    for (const RankedChange& change : RankChanges(*reader, window, before, 4 * kShown)) {
        const SeriesInfo& info = reader->Series()[change.series];
        if (shown == kShown || IsOf(alarm, info)) continue;
        const std::string unit = (info.unit.empty() ? "" : " " + info.unit) +
                                 (info.kind == SeriesKind::kCounter ? "/s" : "");
        char values[128];
        std::snprintf(values, sizeof values, " %.4g%s (was %.4g)", change.extreme, unit.c_str(),
                      change.before);
        text += (shown++ > 0 ? ", " : "") + SeriesId(info) + values;
    }
    return text;
}

}  // namespace

std::string MovedSeries(const std::string& history, const SampleTime& now, int64_t periodNs,
                        const AlarmEvent& alarm) {
    std::string text = Ranked(history, now, periodNs, alarm);
    malloc_trim(0);  // the reader took much, for a moment
    return text;
}
