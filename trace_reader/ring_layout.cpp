#include <algorithm>
#include <string>

#include "trace_reader/layout.h"
#include "trace_reader/prefix.h"
#include "trace_reader/record_stream.h"
#include "trace_reader/trailer.h"
#include "trace_reader/writer.h"

namespace {

constexpr uint64_t kNowhere = TraceFile::kNowhere;
constexpr uint64_t kNear = uint64_t{1} << 20;
constexpr std::string_view kFill = "____________________\n";

// Whether the bytes in front of `end` are pre-fill: then the cycle is the first one.
bool IsPreFill(const TraceFile& file, uint64_t begin, uint64_t end) {
    return end >= begin + kFill.size() && file.Read(end - kFill.size(), kFill.size()) == kFill;
}

// Where the newest record ends when there is no trailer: its writer died while it wrote, or is
// about to begin a cycle.
struct Guess {
    uint64_t newest = 0;
    bool isFound = false;
};
Guess GuessNewest(const TraceFile& file, uint64_t begin, uint64_t end) {
    NarrowNewest(file, begin, end);
    RecordStream stream(file);
    stream.Start({begin, end, RecordKind::kRecord, true});
    TraceRecord record;
    for (int64_t time = INT64_MIN; stream.Next(record); time = record.time) {
        if (record.kind == RecordKind::kFill || record.time < time) return {stream.Offset(), true};
    }
    return {end, false};
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

static Guess GuessNewest(const TraceFile& file, const Layout& layout) {
    return GuessNewest(file, layout.start, FindDots(file, layout.start, layout.size));
}

static void AddProblem(Layout& layout, const char* problem) {
    if (!layout.problem.empty()) layout.problem += "; ";
    layout.problem += problem;
}

static void TakeGuess(const TraceFile& file, const Guess& guess, Layout& layout) {
    if (!TakePlace(
            file, [&guess] { return guess.newest; }, layout))
        layout.newest = guess.newest;
    AddProblem(layout, "no trailer: the newest record may be cut");
}

static bool IsRecordBehind(const TraceFile& file, uint64_t trailer) {
    const std::string head = file.Read(trailer + kTrailerLength, PrefixParser::kHeadLength);
    return PrefixParser().ParseHead(head.data(), head.size()).isThere != 0;
}

// A line like a trailer, with newer records behind it: the trailer, and the clock was put back; or
// the end of a text, and the writer died within a later record, behind which time goes back. Behind
// a trailer there is nearly always a piece of the record that was overwritten last, and in a first
// cycle pre-fill.
static bool KeepsUnlikely(const TraceFile& file, Layout& layout) {
    const bool isFirst = IsPreFill(file, layout.start, layout.size);
    const bool isText = isFirst || IsRecordBehind(file, layout.newest);
    const Guess guess = isText ? GuessNewest(file, layout) : Guess();
    if (isFirst || (guess.isFound && guess.newest > layout.newest)) {
        TakeGuess(file, guess, layout);
        return false;
    }
    const uint64_t begin = std::max<uint64_t>(layout.start, 1) - 1;
    const uint64_t first = file.Find(kTrailerLine, begin, layout.size);
    const uint64_t last = file.FindLast(kTrailerLine, begin, layout.size);
    if (first != last) AddProblem(layout, "several trailers: the newest record is uncertain");
    return true;
}

// The newest record by its trailer. There is none while a record or a header is written, which may
// be interrupted for a while.
static bool FindNewest(const TraceFile& file, Layout& layout) {
    Trailer trailer;
    const auto take = [&] {
        const auto find = [&] {
            trailer = FindTrailer(file, layout.start, layout.size);
            return trailer.offset;
        };
        return TakePlace(file, find, layout);
    };
    bool isFound = false;
    const auto isSure = [&] { return isFound && trailer.isLikely; };
    // More than once also where its writer cannot be seen.
    for (int i = 0; i < 3 && !isSure(); ++i) isFound = take();
    const bool isLive = !isSure() && IsWriter(FindWriter(file), file);
    for (const Patience patience; isLive && !isSure() && patience.Wait();) isFound = take();
    layout.hasUncertainLines = trailer.isOneOfMany;
    if (isFound && !trailer.isLikely) return KeepsUnlikely(file, layout);
    if (!isFound) TakeGuess(file, GuessNewest(file, layout), layout);
    return isFound;
}

constexpr std::string_view kHeaderEnd = "# End of header.\n";
constexpr uint64_t kMostHeader = uint64_t{4} << 20;

static uint64_t FindHeaderEnd(const TraceFile& file, uint64_t size) {
    const uint64_t found = file.Find(kHeaderEnd, 0, std::min(size, kMostHeader));
    return found == kNowhere ? 0 : found + kHeaderEnd.size();
}

// The rest of a header that reached into the records: they begin in the middle of it.
static uint64_t FindHeaderRest(const TraceFile& file, uint64_t begin, uint64_t end) {
    const std::string ending = std::string(kHeaderEnd) + std::string(kTrailerLine.substr(1));
    const uint64_t found = file.Find(ending, begin, std::min(end, kMostHeader));
    return found == kNowhere ? begin : found + ending.size();
}

static void ExamineCycles(const TraceFile& file, Layout& layout) {
    const uint64_t size = layout.size;
    const bool isEnded = layout.hasTrailer = FindNewest(file, layout);
    const uint64_t dots = FindDots(file, layout.start, size);
    const uint64_t trailer = layout.newest + (isEnded ? kTrailerLength : 0);
    const uint64_t old = layout.run.empty() ? FindHeaderRest(file, trailer, dots) : trailer;
    const bool isFirst = dots == size && IsPreFill(file, old, size);
    layout.oldEnd = isFirst ? old : std::max(dots, old);
    layout.cycle = isFirst ? 0 : 1;
    PutSegment(layout, trailer, old, RecordKind::kHeader);
    PutSegment(layout, old, layout.oldEnd, RecordKind::kRecord, true);
    PutSegment(layout, layout.oldEnd, isFirst ? layout.oldEnd : size, RecordKind::kFill);
    PutSegment(layout, layout.start, layout.newest, RecordKind::kRecord, layout.isStartCut);
    if (isEnded) PutSegment(layout, layout.newest, trailer, RecordKind::kEndMark);
    if (isFirst) PutSegment(layout, old, size, RecordKind::kFill);
}

// Where records begin when the record in front of them is damaged: as far behind a multiple of its
// alignment as it is long. A header that has grown (a long command line) ends there in the middle
// of a line.
static uint64_t FindStart(const TraceFile& file, uint64_t size) {
    constexpr std::string_view kBeginText = "### Begin of RingBuffer. ###\n";
    constexpr std::string_view kRest = " ###\n";  // of it, at the least
    constexpr uint64_t kAlignment = 1024, kMemoryColumn = 13;
    const std::string head = file.Read(0, std::min(size, kMostHeader));
    PrefixParser parser;
    TraceRecord record;
    record.line = std::string_view(head).substr(0, head.find('\n'));
    if (parser.ParseHead(head.data(), head.size()).isThere == 0) return kNowhere;
    parser.ParseRest(record);
    const uint64_t length = record.line.size() - record.text.size() + kBeginText.size();
    // The memory column may have been switched since.
    const uint64_t other = record.residentKb < 0 ? length + kMemoryColumn : length - kMemoryColumn;
    for (uint64_t at = kAlignment; at + length + kMemoryColumn < head.size(); at += kAlignment) {
        for (const uint64_t start : {at + length, at + other}) {
            const bool isHead =
                parser.ParseHead(head.data() + start, head.size() - start).isThere != 0;
            const std::string_view before(head.data() + start - kRest.size(), kRest.size());
            if (isHead && (before.back() != '\n' || before == kRest)) return start;
        }
    }
    return kNowhere;
}

// Something overwrote the record that begins the ring.
static void ExamineDamaged(const TraceFile& file, Layout& layout) {
    layout.problem = "the record that begins the ring is damaged";
    layout.start = FindStart(file, layout.size);
    layout.isStartCut = layout.start == kNowhere;
    if (layout.isStartCut) layout.start = FindHeaderEnd(file, layout.size);
    PutSegment(layout, 0, layout.start, RecordKind::kHeader);
    ExamineCycles(file, layout);
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
