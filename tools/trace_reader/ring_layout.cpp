#include <unistd.h>

#include <algorithm>
#include <string>

#include "tools/trace_reader/layout.h"
#include "tools/trace_reader/prefix.h"
#include "tools/trace_reader/record_stream.h"
#include "tools/trace_reader/writer.h"

namespace {

constexpr uint64_t kNowhere = TraceFile::kNowhere;
constexpr uint64_t kNear = uint64_t{1} << 20;
constexpr std::string_view kFill = "____________________\n";

// Narrows the place where a cycle's records end and the older ones (or the pre-fill) begin, by time
// stamps: far faster than reading half of the file. Wrong when the clock went back.
void NarrowNewest(const TraceFile& file, uint64_t& begin, uint64_t& end) {
    const auto first = FindRecord(file, begin, std::min(begin + kNear, end));
    while (first && end - begin > 2 * kNear) {
        const uint64_t middle = begin + (end - begin) / 2;
        const auto place = FindRecord(file, middle, std::min(middle + kNear, end));
        if (!place) return;
        if (place->kind == RecordKind::kFill || place->time < first->time) {
            end = std::min(place->offset + kTrailerLength, end);
        } else {
            begin = place->offset;
        }
    }
}

// Whether the bytes in front of `end` are pre-fill: then the cycle is the first one.
bool IsPreFill(const TraceFile& file, uint64_t begin, uint64_t end) {
    return end >= begin + kFill.size() && file.Read(end - kFill.size(), kFill.size()) == kFill;
}

// Where the newest record ends when there is no trailer: its writer died while it wrote, or is
// about to begin a cycle.
uint64_t GuessNewest(const TraceFile& file, uint64_t begin, uint64_t end) {
    NarrowNewest(file, begin, end);
    RecordStream stream(file);
    stream.Start({begin, end, RecordKind::kRecord, true});
    TraceRecord record;
    for (int64_t time = INT64_MIN; stream.Next(record); time = record.time) {
        if (record.kind == RecordKind::kFill || record.time < time) return stream.Offset();
    }
    return end;
}

void PutSegment(Layout& layout, uint64_t begin, uint64_t end, RecordKind kind, bool isCut = false) {
    if (begin < end) layout.segments.push_back({begin, end, kind, isCut});
}

}  // namespace

uint64_t FindDots(const TraceFile& file, uint64_t start, uint64_t size) {
    for (uint64_t end = size; end > start;) {
        const uint64_t begin = end - std::min(kNear, end - start);
        const std::string block = file.Read(begin, end - begin);
        const size_t last = block.find_last_not_of('.');
        // A text may end in dots, but then comes its line feed.
        if (last != block.npos) return block[last] == '\n' ? begin + last + 1 : size;
        end = begin;
    }
    return start;
}

uint64_t FindTrailer(const TraceFile& file, uint64_t start, uint64_t end) {
    uint64_t from = start, to = end;
    NarrowNewest(file, from, to);
    // The line feed in front of it belongs to the record before.
    from = std::max<uint64_t>(from, 1) - 1;
    uint64_t found = file.Find(kTrailerLine, from, std::min(to + kTrailerLine.size(), end));
    const bool isNarrow = from + 1 > start || to < end;
    if (found == kNowhere && isNarrow) found = file.Find(kTrailerLine, start - 1, end);
    return found == kNowhere ? kNowhere : found + 1;
}

// The newest record by its trailer. There is none while a record or a header is written, which may
// be interrupted for a while.
static bool FindNewest(const TraceFile& file, Layout& layout) {
    constexpr int kTries = 20, kPatience = 200;
    const auto find = [&] { return FindTrailer(file, layout.start, layout.size); };
    for (int i = 0; i < kTries; ++i) {
        if (TakePlace(file, find, layout)) return true;
    }
    const bool isLive = IsWriter(FindWriter(file), file);
    for (int i = 0; isLive && i < kPatience; ++i) {
        usleep(500);
        if (TakePlace(file, find, layout)) return true;
    }
    return false;
}

static void GuessPlace(const TraceFile& file, Layout& layout) {
    const uint64_t dots = FindDots(file, layout.start, layout.size);
    const uint64_t guess = GuessNewest(file, layout.start, dots);
    if (!TakePlace(
            file, [guess] { return guess; }, layout))
        layout.newest = guess;
    layout.problem = "no trailer: the newest record may be cut";
}

static void ExamineCycles(const TraceFile& file, Layout& layout) {
    const uint64_t size = layout.size;
    const bool isEnded = layout.hasTrailer = FindNewest(file, layout);
    if (!isEnded) GuessPlace(file, layout);
    const uint64_t dots = FindDots(file, layout.start, size);
    const uint64_t old = layout.newest + (isEnded ? kTrailerLength : 0);
    const bool isFirst = dots == size && IsPreFill(file, old, size);
    layout.oldEnd = isFirst ? old : std::max(dots, old);
    layout.cycle = isFirst ? 0 : 1;
    PutSegment(layout, old, layout.oldEnd, RecordKind::kRecord, true);
    PutSegment(layout, layout.oldEnd, isFirst ? layout.oldEnd : size, RecordKind::kFill);
    PutSegment(layout, layout.start, layout.newest, RecordKind::kRecord);
    if (isEnded) PutSegment(layout, layout.newest, old, RecordKind::kEndMark);
    if (isFirst) PutSegment(layout, old, size, RecordKind::kFill);
}

// A header that has grown overwrote the begin record, or something else did: the records go from
// the header to the last trailer, and the older ones from there on.
static void ExamineDamaged(const TraceFile& file, Layout& layout) {
    const uint64_t size = layout.size;
    const uint64_t first = file.Find(kTrailerLine, 0, size);
    const uint64_t last = file.FindLast(kTrailerLine, 0, size);
    layout.problem = "the record that begins the ring is damaged";
    layout.newest = last + 1;
    const uint64_t old = layout.newest + kTrailerLength;
    const uint64_t header = first == last ? 0 : first + 1 + kTrailerLength;
    const uint64_t dots = FindDots(file, old, size);
    layout.start = header;
    layout.hasTrailer = TakePlace(
        file, [last] { return last + 1; }, layout);
    layout.oldEnd = dots;
    layout.cycle = dots == size && IsPreFill(file, old, size) ? 0 : 1;
    PutSegment(layout, 0, header, RecordKind::kHeader);
    PutSegment(layout, old, dots, RecordKind::kRecord, true);
    PutSegment(layout, dots, size, RecordKind::kFill);
    PutSegment(layout, header, layout.newest, RecordKind::kRecord, header != 0);
}

void ExamineRing(const TraceFile& file, uint64_t begin, Layout& layout) {
    layout.kind = FileKind::kRingFile;
    if (begin == kNowhere) return ExamineDamaged(file, layout);
    layout.start = file.Find("\n", begin, layout.size) + 1;
    PutSegment(layout, 0, begin, RecordKind::kHeader);
    PutSegment(layout, begin, layout.start, RecordKind::kBegin);
    layout.run = file.Read(begin, layout.start - begin);
    ExamineCycles(file, layout);
}
