#include "kemdctl/trace/run_start.h"

#include <algorithm>
#include <map>

#include "trace_reader/trace_merge.h"

namespace {

constexpr std::string_view kRingStart = "### Start of initialization. ###";
constexpr std::string_view kBanner = "kemd Version=\"";

// A text may begin with a line feed that belongs to nothing.
std::string_view Bare(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of('\n'), text.size()));
}

}  // namespace

bool RunStart::IsAt(const TraceRecord& record) const {
    const std::string_view text = Bare(record.text);
    return record.time == time && record.thread == thread &&
           (text.starts_with(kRingStart) || text.starts_with(kBanner));
}

// Both rings of a run begin with the same record, but only the start-up ring has the banner behind
// it. A log begins with the banner.
std::optional<RunStart> FindLastStart(const std::vector<std::string>& files) {
    TraceMerge merge;
    for (const std::string& file : files) merge.Add(file);
    std::optional<RunStart> last;
    std::map<uint16_t, RunStart> ringStarts;  // by source
    for (TraceRecord record; merge.Next(record);) {
        const std::string_view text = Bare(record.text);
        if (text.starts_with(kRingStart)) {
            ringStarts[record.source] = {record.time, record.thread};
        } else if (text.starts_with(kBanner)) {
            const auto found = ringStarts.find(record.source);
            last = found != ringStarts.end() ? found->second : RunStart{record.time, record.thread};
            ringStarts.clear();
        }
    }
    return last;
}
