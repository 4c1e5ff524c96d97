#include "trace_reader/layout.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <utility>

namespace {

using trace_text::kAlignment;
using trace_text::kTrailer;

constexpr uint64_t kNear = uint64_t{1} << 18;
constexpr uint64_t kMostHeader = uint64_t{4} << 20;
constexpr std::string_view kFill = "____________________\n";
constexpr const char* kNotCertain =
    "the order of its records is not certain: shown as they stand in the file";

void PutSegment(Layout& layout, uint64_t begin, uint64_t end, RecordKind kind = RecordKind::kRecord,
                bool isCut = false) {
    if (begin < end) layout.segments.push_back({begin, end, kind, isCut});
}

bool IsAt(const TraceFile& file, uint64_t offset, std::string_view text) {
    return file.Read(offset, text.size()) == text;
}

// A power cut may leave the size of a file and none of its bytes.
bool HasZerosOnly(const TraceFile& file, uint64_t size) {
    std::string bytes;
    for (uint64_t at = 0; at < size; at += bytes.size()) {
        bytes = file.Read(at, 65536);
        if (bytes.empty() || bytes.find_first_not_of('\0') != bytes.npos) return false;
    }
    return true;
}

bool EndsWithFill(const TraceFile& file, uint64_t size) {
    return size >= kFill.size() && IsAt(file, size - kFill.size(), kFill);
}

// Where the records of one cycle end and older ones or pre-fill begin, by time stamps: between
// `begin` and `end`, which come closer. Wrong when the clock went back.
void NarrowNewest(const TraceFile& file, uint64_t& begin, uint64_t& end) {
    const auto first = FindRecord(file, begin, std::min(begin + kNear, end));
    while (first && end - begin > 2 * kNear) {
        const uint64_t middle = begin + (end - begin) / 2;
        const auto place = FindRecord(file, middle, std::min(middle + kNear, end));
        if (!place) return;
        if (place->kind == RecordKind::kFill || place->time < first->time) {
            end = std::min(place->offset + kTrailer.size(), end);
        } else {
            begin = place->offset;
        }
    }
}

// The time of the record that ends at a place.
std::optional<int64_t> TimeBefore(const TraceFile& file, uint64_t begin, uint64_t end) {
    for (uint64_t length = uint64_t{1} << 12;; length *= 16) {
        const uint64_t from = end - std::min(length, end - begin);
        RecordStream stream(file);
        stream.Start({from, end, RecordKind::kRecord, true});
        std::optional<int64_t> time;
        for (TraceRecord record; stream.Next(record);) time = record.time;
        if (time || from == begin) return time;
    }
}

// The lines of a ring that look like its trailer, as a text may have them, too.
struct Trailers {
    uint64_t place = TraceFile::npos;  // of the last one that older records follow, or of the last
    int count = 0;
    int good = 0;              // those that older records or pre-fill follow
    bool hasFragment = false;  // bytes of an overwritten record follow it
    bool isOneOfMany = false;  // before the same record: one of a text, or left of an older cycle
};

bool IsFollowedByOlder(const TraceFile& file, uint64_t start, uint64_t trailer,
                       const std::optional<RecordPlace>& next) {
    if (!next || next->kind == RecordKind::kFill) return true;
    const auto time = TimeBefore(file, std::min(start, trailer), trailer);
    return time && next->time < *time;
}

// Those that begin in [from, to).
Trailers LookForTrailers(const TraceFile& file, uint64_t from, uint64_t to, const Layout& layout) {
    static constexpr std::string_view kLine = "\n## TRACE-END ##\n";
    static_assert(kLine.substr(1) == kTrailer);
    constexpr int kMost = 10'000;  // in texts: no file may keep its reader busy for long
    const std::string headerEnd = std::string(trace_text::kHeaderEnd) + "\n";
    const uint64_t last = std::min(to + kLine.size(), layout.size);
    Trailers trailers;
    for (int looked = 0; from < to; ++looked) {
        // The line feed before it belongs to the record before.
        const uint64_t found = file.Find(kLine, std::max<uint64_t>(from, 1) - 1, last);
        if (found == TraceFile::npos) break;
        if (looked == kMost) return {};
        const auto next = FindRecord(file, found + kLine.size(), layout.size);
        // Of several before one record the last. A writer may have overwritten all of them by now.
        from = next ? next->offset : layout.size;
        const uint64_t line = file.FindLast(kLine, found, std::min(from, last));
        const uint64_t at = (line == TraceFile::npos ? found : line) + 1;
        // A header that reaches into the records ends in a trailer, too.
        if (at >= headerEnd.size() && IsAt(file, at - headerEnd.size(), headerEnd)) continue;
        const bool isGood = IsFollowedByOlder(file, layout.start, at, next);
        ++trailers.count;
        trailers.good += isGood ? 1 : 0;
        if (!isGood && trailers.good > 0) continue;
        trailers.place = at;
        trailers.isOneOfMany = at != found + 1;
        trailers.hasFragment = next && next->offset != at + kTrailer.size();
    }
    return trailers;
}

// Times show where to look. Where the clock was set back, the only one with older records after it
// counts or, when there is none, the only one at all that no record follows directly.
uint64_t FindTrailer(const TraceFile& file, uint64_t from, Layout& layout) {
    uint64_t begin = from, end = layout.size;
    NarrowNewest(file, begin, end);
    Trailers trailers = LookForTrailers(file, begin, end, layout);
    if (trailers.good == 0) trailers = LookForTrailers(file, from, layout.size, layout);
    layout.hasUncertainLines = trailers.isOneOfMany;
    const bool isOnly =
        trailers.good == 1 || (trailers.good == 0 && trailers.count == 1 && trailers.hasFragment);
    return isOnly ? trailers.place : TraceFile::npos;
}

// A cycle may be overtaken while it is looked at: it is examined again when no trailer is seen, as
// between a record and its trailer or, for longer, between the dots and the next cycle's record.
bool FindNewestOfLive(const TraceFile& file, Layout& layout, int tries) {
    constexpr timespec kPause = {0, 2'000'000};
    for (int i = 0; i < tries; ++i) {
        if (FindNewest(file, layout.start, layout)) return true;
        (void)nanosleep(&kPause, nullptr);
    }
    return false;
}

// The record that begins a ring; only it stands at such an offset.
uint64_t FindBegin(const TraceFile& file, uint64_t size) {
    constexpr uint64_t kBlock = uint64_t{1} << 17;
    constexpr uint64_t kLongest = trace_text::kPrefixLimit + trace_text::kRingBegin.size() + 1;
    const std::string begin = std::string(trace_text::kRingBegin) + "\n";
    PrefixParser parser;
    for (uint64_t at = 0; at < size; at += kBlock) {
        const std::string block = file.Read(at, kBlock + kLongest);
        for (uint64_t i = 0; i < std::min<uint64_t>(block.size(), kBlock); i += kAlignment) {
            TraceRecord record;
            record.line = std::string_view(block).substr(i, kLongest);
            if (parser.ParseHead(record.line.data(), record.line.size()).isThere == 0) continue;
            parser.ParseRest(record);
            if (record.text.starts_with(begin)) return at + i;
        }
    }
    return TraceFile::npos;
}

// A header that has grown over the begin record ends in the middle of a line, where records begin.
// TraceFile::npos: not found.
uint64_t FindStartInLine(const TraceFile& file, uint64_t size) {
    const std::string head = file.Read(0, std::min(size, kMostHeader));
    PrefixParser parser;
    if (!HasHead(head)) return TraceFile::npos;
    for (size_t at = 1; at + PrefixParser::kHeadLength < head.size(); ++at) {
        if (head[at] < '0' || head[at] > '9' || head[at - 1] == '\n') continue;
        if (parser.ParseHead(head.data() + at, head.size() - at).isThere != 0) return at;
    }
    return TraceFile::npos;
}

uint64_t FindHeaderEnd(const TraceFile& file, uint64_t begin, uint64_t end) {
    const std::string text = std::string(trace_text::kHeaderEnd) + "\n" + std::string(kTrailer);
    const uint64_t found = file.Find(text, begin, std::min(end, begin + kMostHeader));
    return found == TraceFile::npos ? begin : found + text.size();
}

void ShowAsItStands(const TraceFile& file, uint64_t dots, bool hasFill, Layout& layout) {
    if (!layout.problem.empty()) layout.problem += "; ";
    const bool hasOne = file.Find(kTrailer, layout.start, layout.size) != TraceFile::npos;
    layout.problem += (hasOne ? "no certain trailer: " : "no trailer: ");
    layout.problem += kNotCertain;
    layout.isCertain = false;
    layout.cycle = hasFill ? 0 : 1;
    PutSegment(layout, layout.start, dots, RecordKind::kRecord, layout.run.empty());
    PutSegment(layout, dots, layout.size, RecordKind::kFill);
}

// Without the record that begins it a ring begins where its header leaves a record in the middle
// of a line, or where the header ends.
void FindStart(const TraceFile& file, uint64_t begin, Layout& layout) {
    if (begin != TraceFile::npos) {
        layout.start = file.FindLineEnd(begin, layout.size);
        layout.run = file.Read(begin, layout.start - begin);
        PutSegment(layout, 0, begin, RecordKind::kHeader);
        return PutSegment(layout, begin, layout.start, RecordKind::kBegin);
    }
    layout.problem = "the record that begins the ring is damaged";
    layout.start = FindStartInLine(file, layout.size);
    layout.hasStart = layout.start != TraceFile::npos;
    if (!layout.hasStart) layout.start = FindHeaderEnd(file, 0, layout.size);
    PutSegment(layout, 0, layout.start, RecordKind::kHeader);
}

void ExamineRing(const TraceFile& file, uint64_t begin, Layout& layout) {
    FindStart(file, begin, layout);
    const uint64_t size = layout.size;
    const uint64_t dots = FindDots(file, layout.start, size);
    const bool hasFill = EndsWithFill(file, size);
    if (!FindNewestOfLive(file, layout, 3)) return ShowAsItStands(file, dots, hasFill, layout);
    const bool isCut = layout.run.empty();
    const uint64_t trailer = layout.newest + kTrailer.size();
    // What is left of a header that had grown.
    const uint64_t old = isCut ? FindHeaderEnd(file, trailer, dots) : trailer;
    const bool isFirst = dots == size && hasFill;
    const uint64_t oldEnd = isFirst ? old : std::max(dots, old);
    layout.cycle = isFirst ? 0 : 1;
    PutSegment(layout, trailer, old, RecordKind::kHeader);
    PutSegment(layout, old, oldEnd, RecordKind::kRecord, true);
    PutSegment(layout, oldEnd, isFirst ? 0 : size, RecordKind::kFill);
    PutSegment(layout, layout.start, layout.newest, RecordKind::kRecord, isCut);
    PutSegment(layout, layout.newest, trailer, RecordKind::kTrailerLine);
    if (isFirst) PutSegment(layout, old, size, RecordKind::kFill);
}

bool TakeNumber(std::string_view text, std::string_view label, uint64_t& number) {
    const size_t found = text.find(label);
    if (found == text.npos) return false;
    text.remove_prefix(found + label.size());
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
}

std::optional<WrapLine> ParseWrap(const TraceRecord& record, uint64_t offset) {
    uint64_t cycle = 0, start = 0;
    const bool isWrap = record.kind == RecordKind::kWrap &&
                        TakeNumber(record.text, trace_text::kWrap, cycle) &&
                        TakeNumber(record.text, trace_text::kWrapStart, start);
    // It stands where its cycle begins, which a copy in a text does not.
    if (!isWrap || start != offset) return std::nullopt;
    return WrapLine{static_cast<uint32_t>(cycle), start};
}

// Goes over a log. The records of its last cycle end where the time goes back, or with the file. A
// log without texts of several lines has further lines only there, left by an overwritten record.
class LogScan {
  public:
    void Take(const TraceRecord& record, uint64_t offset);
    // Of a log that has wrapped.
    void Put(Layout& layout) const;
    [[nodiscard]] bool HasWrapped() const { return m_wrap.cycle > 0; }

  private:
    // Between two records of the log.
    struct Place {
        uint64_t certain = 0;  // the end of the first line of the record before
        uint64_t old = 0;      // where the next record begins
        int64_t time = INT64_MIN;
        bool isLong = false;  // the record before has further lines
        bool isWrap = false;  // it is a wrap line, which has none of its own
    };
    // Otherwise what follows in further lines was left by an overwritten record.
    [[nodiscard]] bool HasLongTexts() const { return m_longTexts > 1; }
    void PutAround(const Place& place, bool hasOlder, Layout& layout) const;

    WrapLine m_wrap;
    Place m_end;                            // the first one in its cycle where the time goes back
    int m_back = 0;                         // how many of these there are
    uint64_t m_fragment = TraceFile::npos;  // the first record in its cycle after further lines
    int m_longTexts = 0;
    Place m_last;  // after the record that was taken last
};

void LogScan::Take(const TraceRecord& record, uint64_t offset) {
    m_last.old = offset;
    if (record.time < m_last.time && m_back++ == 0) m_end = m_last;
    if (m_last.isLong) {
        ++m_longTexts;
        m_fragment = std::min(m_fragment, offset);
    }
    if (const auto wrap = ParseWrap(record, offset); wrap && wrap->cycle > m_wrap.cycle) {
        m_wrap = *wrap;
        m_back = 0;
        m_fragment = TraceFile::npos;
    }
    const size_t first = std::min(record.line.find('\n'), record.line.size());
    m_last = {offset + first + 1, 0, record.time, first < record.line.size(),
              record.kind == RecordKind::kWrap};
}

void LogScan::PutAround(const Place& place, bool hasOlder, Layout& layout) const {
    layout.certain = std::min(place.certain, layout.size);
    layout.newest = HasLongTexts() && !place.isWrap ? place.old : layout.certain;
    // The file is never shortened: after the record that passed the limit there may be what older
    // ones have left.
    const bool hasRest = hasOlder && layout.cycle > 1 && m_last.isLong;
    const uint64_t oldEnd = hasRest && !HasLongTexts() ? m_last.certain : layout.size;
    layout.hasUncertainLines = HasLongTexts() && ((place.isLong && !place.isWrap) || hasRest);
    layout.overwritten = place.old - layout.newest + layout.size - oldEnd;
    PutSegment(layout, 0, layout.start);
    PutSegment(layout, layout.newest, place.old, RecordKind::kFragment);
    PutSegment(layout, place.old, oldEnd);
    PutSegment(layout, oldEnd, layout.size, RecordKind::kFragment);
    PutSegment(layout, layout.start, layout.newest);
}

void LogScan::Put(Layout& layout) const {
    layout.cycle = m_wrap.cycle;
    layout.start = m_wrap.start;
    Place end = m_last;
    end.old = layout.size;
    if (m_back == 1) end = m_end;
    const bool agree = HasLongTexts() || m_fragment == TraceFile::npos || m_fragment == end.old;
    if (m_back < 2 && agree) return PutAround(end, m_back == 1, layout);
    layout.isCertain = false;
    layout.problem = kNotCertain;
    PutSegment(layout, 0, layout.size);
}

void ExamineLog(const TraceFile& file, Layout& layout) {
    LogScan scan;
    if (file.Find(trace_text::kWrap, 0, layout.size) != TraceFile::npos) {
        RecordStream stream(file);
        stream.Start({0, layout.size, RecordKind::kRecord, false});
        for (TraceRecord record; stream.Next(record);) scan.Take(record, stream.Offset());
    }
    if (scan.HasWrapped()) return scan.Put(layout);
    layout.newest = layout.certain = file.FindLineStart(layout.size);
    PutSegment(layout, 0, layout.size);
}

// What a file without the record that begins a ring holds. A ring begins with its header, if it is
// not damaged there, and has a trailer; while it is made it has pre-fill at least.
FileKind FindKind(const TraceFile& file, uint64_t size) {
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, false});
    TraceRecord record;
    bool isThere = stream.Next(record);
    const bool isMessage = isThere && record.kind == RecordKind::kRecord &&
                           record.text != trace_text::kEnvironment &&
                           !record.text.ends_with(trace_text::kCommandLine);
    if (!isMessage && file.Find(kTrailer, 0, size) != TraceFile::npos) return FileKind::kRingFile;
    if (EndsWithFill(file, size)) return FileKind::kRingFile;
    FileKind kind = FileKind::kForeignFile;
    for (; isThere; isThere = stream.Next(record)) {
        if (record.kind == RecordKind::kFill) kind = FileKind::kRingFile;
        if (record.kind == RecordKind::kRecord || record.kind == RecordKind::kWrap)
            return FileKind::kLogFile;
    }
    return kind;
}

}  // namespace

Layout ExamineFile(const TraceFile& file) {
    Layout layout;
    layout.size = file.Size();
    if (layout.size == 0) return layout;
    if (HasZerosOnly(file, layout.size)) {
        layout.problem = "zeros only, as a power cut leaves them";
        return layout;
    }
    const uint64_t begin = FindBegin(file, layout.size);
    const bool isRing = begin != TraceFile::npos;
    // A ring that is being made has its whole size only when its records begin.
    if (isRing) layout.size = file.Size();
    layout.kind = isRing ? FileKind::kRingFile : FindKind(file, layout.size);
    if (layout.kind == FileKind::kLogFile) {
        ExamineLog(file, layout);
    } else if (layout.kind == FileKind::kForeignFile) {
        PutSegment(layout, 0, layout.size, RecordKind::kOther);
        layout.problem = "not a trace file";
    } else if (isRing || file.Find(kTrailer, 0, layout.size) != TraceFile::npos) {
        ExamineRing(file, begin, layout);
    } else {
        layout.isCertain = false;
        PutSegment(layout, 0, layout.size, RecordKind::kFill);
        layout.problem = "nothing was written yet";
    }
    return layout;
}

bool FindNewest(const TraceFile& file, uint64_t from, Layout& layout) {
    constexpr uint64_t kFirst = 128, kMark = 4096;
    const std::string before = file.Read(layout.start, kFirst);
    const uint64_t trailer = FindTrailer(file, from, layout);
    if (trailer == TraceFile::npos || trailer < layout.start) return false;
    // Only now: what was read before the trailer was seen may have been older than the record.
    const uint64_t length = std::min(kMark, trailer - layout.start);
    std::string mark = file.Read(trailer - length, length);
    std::string first = file.Read(layout.start, std::min(kFirst, trailer - layout.start));
    if (!before.starts_with(first)) return false;
    layout.newest = trailer;
    layout.first = std::move(first);
    layout.mark = std::move(mark);
    return true;
}

bool IsUntouched(const TraceFile& file, const Layout& layout) {
    const uint64_t length = layout.mark.size();
    const std::string now = file.Read(layout.newest - length, length + kTrailer.size());
    return now.starts_with(layout.mark) && now.ends_with(kTrailer);
}

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

RingGuard::RingGuard(const TraceFile& file, const Layout& layout)
    : m_file(file), m_layout(layout), m_oldValid(layout.newest), m_newValid(layout.start) {
    m_layout.segments.clear();
}

// The writer is at the trailer. Before it stands what is newer than the layout; after it what the
// writer has not come to: everything, or one cycle less, or nothing that was known.
uint64_t RingGuard::operator()(const Segment& segment) {
    // A copy may store the end of a record before its beginning, and so before the trailer is gone.
    constexpr uint64_t kInFlight = 8192;
    // Without a place of the writer everything counts as lost: one that is interrupted gets time,
    // but only once.
    constexpr int kTries = 100;
    if (segment.kind != RecordKind::kRecord) return segment.begin;
    const std::string& mark = m_layout.mark;
    if (!IsUntouched(m_file, m_layout)) {
        Layout now = m_layout;
        const bool isFound = FindNewestOfLive(m_file, now, m_mayWait ? kTries : 1);
        m_mayWait = isFound;
        const bool isKept = IsAt(m_file, m_layout.newest - mark.size(), mark);
        const uint64_t valid = now.newest + kTrailer.size() + kInFlight;
        m_oldValid = isFound && isKept && now.newest >= m_layout.newest ? valid : m_layout.size;
        if (!isFound || !isKept) m_newValid = m_layout.size;
        if (isFound && isKept && now.newest < m_layout.newest) m_newValid = valid;
    }
    const uint64_t valid = segment.begin >= m_layout.newest ? m_oldValid : m_newValid;
    return std::clamp(valid, segment.begin, segment.end);
}

std::optional<WrapLine> ReadWrapLine(const TraceFile& file, uint64_t offset) {
    constexpr uint64_t kLongest = 512;
    RecordStream stream(file);
    stream.Start({offset, offset + kLongest, RecordKind::kRecord, false});
    TraceRecord record;
    return stream.Next(record) ? ParseWrap(record, offset) : std::nullopt;
}

int FindWriter(const TraceFile& file) {
    const std::string text = file.Read(0, size_t{1} << 20);
    uint64_t id = 0;
    return TakeNumber(text, trace_text::kProcessId, id) ? static_cast<int>(id) : 0;
}
