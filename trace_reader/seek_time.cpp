#include "trace_reader/seek_time.h"

#include <algorithm>

#include "trace_reader/record_stream.h"

namespace {

constexpr uint64_t kNear = uint64_t{1} << 16;

// Narrows [begin, end) to where records of this time begin, as if time never went back.
void NarrowTime(const TraceFile& file, int64_t time, uint64_t& begin, uint64_t end) {
    while (end - begin > kNear) {
        const uint64_t middle = begin + (end - begin) / 2;
        const auto place = FindRecord(file, middle, end);
        if (place && place->kind == RecordKind::kRecord && place->time < time) {
            begin = place->offset;
        } else {
            end = middle;
        }
    }
}

// The first of some places in [begin, end) that has a record of this time or a later one.
uint64_t FindEarlier(const TraceFile& file, int64_t time, uint64_t begin, uint64_t end) {
    constexpr uint64_t kPlaces = 100;
    const uint64_t step = (end - begin) / kPlaces + 1;
    for (uint64_t at = begin; at < end;) {
        const auto place = FindRecord(file, at, end);
        if (!place) break;
        if (place->kind == RecordKind::kRecord && place->time >= time) return at;
        at = std::max(at + step, place->offset);
    }
    return end;
}

}  // namespace

void SkipOlder(const TraceFile& file, Segment& segment, int64_t time) {
    const uint64_t begin = segment.begin;
    for (uint64_t end = segment.end;;) {
        segment.begin = begin;
        NarrowTime(file, time, segment.begin, end);
        const uint64_t earlier = FindEarlier(file, time, begin, segment.begin);
        if (earlier == segment.begin) break;
        end = earlier;
    }
    const uint64_t margin = std::min(4 * kNear, segment.begin - begin);
    const auto place = FindRecord(file, segment.begin - margin, segment.end);
    segment.begin = place && margin < segment.begin - begin ? place->offset : begin;
    segment.isCut = segment.isCut && segment.begin == begin;
}
