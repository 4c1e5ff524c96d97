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

// The lines of a ring that look like its trailer.
class Trailers {
  public:
    Trailers(const TraceFile& file, uint64_t start, uint64_t end)
        : m_file(file), m_start(start), m_end(end) {}

    // Those that begin in [from, to). True when one is followed by older records: that is it.
    bool Look(uint64_t from, uint64_t to, bool isFirstEnough);
    // When all were looked at: the one that is followed by older records or, when the clock was put
    // back, the only one, if what follows it is not the next record.
    [[nodiscard]] uint64_t Only() const {
        if (m_isCut || m_good > 1) return TraceFile::npos;
        return m_good == 1 || (m_count == 1 && m_hasFragment) ? m_place : TraceFile::npos;
    }
    [[nodiscard]] uint64_t Place() const { return m_place; }
    [[nodiscard]] bool IsOneOfMany() const { return m_isOneOfMany; }

  private:
    [[nodiscard]] bool IsGood(uint64_t at, const std::optional<RecordPlace>& next) const;

    const TraceFile& m_file;
    uint64_t m_start;
    uint64_t m_end;
    uint64_t m_place = TraceFile::npos;
    int m_count = 0;
    int m_good = 0;
    bool m_hasFragment = false;
    bool m_isOneOfMany = false;  // before the next record: of a text, or of an older one
    bool m_isCut = false;
};

bool Trailers::IsGood(uint64_t at, const std::optional<RecordPlace>& next) const {
    if (!next || next->kind == RecordKind::kFill) return true;
    const auto time = TimeBefore(m_file, std::min(m_start, at), at);
    return time && next->time < *time;
}

bool Trailers::Look(uint64_t from, uint64_t to, bool isFirstEnough) {
    static constexpr std::string_view kLine = "\n## TRACE-END ##\n";
    constexpr int kMost = 10'000;  // of them in texts: no file may keep its reader busy for long
    static_assert(kLine.substr(1) == kTrailer);
    const uint64_t last = std::min(to + kLine.size(), m_end);
    for (int looked = 0; from < to; ++looked) {
        // The line feed before it belongs to the record before.
        const uint64_t found = m_file.Find(kLine, std::max<uint64_t>(from, 1) - 1, last);
        m_isCut = looked == kMost;
        if (found == TraceFile::npos || m_isCut) break;
        const auto next = FindRecord(m_file, found + kLine.size(), m_end);
        // Of several before one record the last. A writer may have overwritten all of them by now.
        from = next ? next->offset : m_end;
        const uint64_t line = m_file.FindLast(kLine, found, std::min(from, last));
        const uint64_t at = (line == TraceFile::npos ? found : line) + 1;
        // A header that reaches into the records ends in a trailer, too.
        const std::string headerEnd = std::string(trace_text::kHeaderEnd) + "\n";
        if (at >= headerEnd.size() && IsAt(m_file, at - headerEnd.size(), headerEnd)) continue;
        const bool isGood = IsGood(at, next);
        ++m_count;
        m_good += isGood ? 1 : 0;
        if (!isGood && m_good > 0) continue;
        m_place = at;
        m_isOneOfMany = at != found + 1;
        m_hasFragment = next && next->offset != at + kTrailer.size();
        if (isGood && isFirstEnough) return true;
    }
    return false;
}

uint64_t FindTrailer(const TraceFile& file, uint64_t from, Layout& layout) {
    uint64_t begin = from, end = layout.size;
    NarrowNewest(file, begin, end);
    Trailers near(file, layout.start, layout.size);
    const bool isFound = near.Look(begin, end, true);
    layout.hasUncertainLines = near.IsOneOfMany();
    if (isFound) return near.Place();
    Trailers all(file, layout.start, layout.size);
    (void)all.Look(from, layout.size, false);
    layout.hasUncertainLines = all.IsOneOfMany();
    return all.Only();
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

void ExamineCycles(const TraceFile& file, Layout& layout) {
    const uint64_t size = layout.size;
    const uint64_t dots = FindDots(file, layout.start, size);
    const bool hasFill = size >= kFill.size() && IsAt(file, size - kFill.size(), kFill);
    layout.isCertain = FindNewestOfLive(file, layout, 3);
    if (!layout.isCertain) {
        if (!layout.problem.empty()) layout.problem += "; ";
        const bool hasOne = file.Find(kTrailer, layout.start, size) != TraceFile::npos;
        layout.problem += (hasOne ? "no certain trailer: " : "no trailer: ");
        layout.problem += kNotCertain;
        layout.cycle = hasFill ? 0 : 1;
        PutSegment(layout, layout.start, dots, RecordKind::kRecord, !layout.hasStart);
        return PutSegment(layout, dots, size, RecordKind::kFill);
    }
    const uint64_t trailer = layout.newest + kTrailer.size();
    // What is left of a header that had grown.
    const uint64_t old = layout.run.empty() ? FindHeaderEnd(file, trailer, dots) : trailer;
    const bool isFirst = dots == size && hasFill;
    layout.oldEnd = isFirst ? old : std::max(dots, old);
    layout.cycle = isFirst ? 0 : 1;
    PutSegment(layout, trailer, old, RecordKind::kHeader);
    PutSegment(layout, old, layout.oldEnd, RecordKind::kRecord, true);
    PutSegment(layout, layout.oldEnd, isFirst ? 0 : size, RecordKind::kFill);
    PutSegment(layout, layout.start, layout.newest, RecordKind::kRecord, !layout.hasStart);
    PutSegment(layout, layout.newest, trailer, RecordKind::kTrailerLine);
    if (isFirst) PutSegment(layout, old, size, RecordKind::kFill);
}

void ExamineRing(const TraceFile& file, uint64_t begin, Layout& layout) {
    layout.kind = FileKind::kRingFile;
    if (begin != TraceFile::npos) {
        layout.start = file.FindLineEnd(begin, layout.size);
        layout.run = file.Read(begin, layout.start - begin);
        PutSegment(layout, 0, begin, RecordKind::kHeader);
        PutSegment(layout, begin, layout.start, RecordKind::kBegin);
    } else {
        layout.problem = "the record that begins the ring is damaged";
        layout.start = FindStartInLine(file, layout.size);
        layout.hasStart = layout.start != TraceFile::npos;
        if (!layout.hasStart) layout.start = FindHeaderEnd(file, 0, layout.size);
        PutSegment(layout, 0, layout.start, RecordKind::kHeader);
    }
    ExamineCycles(file, layout);
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
    // It stands where its cycle begins, which tells it from a copy in a text.
    if (!isWrap || start != offset) return std::nullopt;
    return WrapLine{static_cast<uint32_t>(cycle), start};
}

// Goes over a log: where in the last cycle may the newest record end?
class LogScan {
  public:
    struct Place {
        uint64_t certain = 0;  // the end of its first line
        uint64_t old = 0;      // where the next record begins
        bool isSameTime = false;
        bool isLong = false;
        bool isWrap = false;  // ends the wrap line, which always has one line
        int count = 0;
    };

    void Take(const TraceRecord& record, uint64_t offset);
    void Examine(Layout& layout);

    WrapLine wrap;

  private:
    void Note(Place& place, const TraceRecord& record, uint64_t offset) const {
        if (place.count++ == 0)
            place = {m_lineEnd, offset, record.time == m_time, m_isLong, m_isWrap, 1};
    }
    // Most texts have one line: what follows in further lines was left by an overwritten record.
    [[nodiscard]] bool HasLongTexts() const { return m_longTexts > 1; }
    void Put(const Place& place, bool hasOlder, Layout& layout) const;

    Place m_back;      // where time goes back
    Place m_fragment;  // where lines without a prefix end
    int m_longTexts = 0;
    // Of the record before:
    int64_t m_time = INT64_MIN;
    uint64_t m_lineEnd = 0;
    bool m_isLong = false;
    bool m_isWrap = false;
};

void LogScan::Take(const TraceRecord& record, uint64_t offset) {
    if (record.time < m_time) Note(m_back, record, offset);
    if (m_isLong) Note(m_fragment, record, offset);
    m_longTexts += m_isLong ? 1 : 0;
    if (const auto found = ParseWrap(record, offset); found && found->cycle > wrap.cycle) {
        wrap = *found;
        m_back = m_fragment = {};
    }
    const size_t first = record.line.find('\n');
    m_isLong = first != record.line.npos;
    m_lineEnd = offset + std::min(first, record.line.size()) + 1;
    m_time = record.time;
    m_isWrap = record.kind == RecordKind::kWrap;
}

void LogScan::Put(const Place& place, bool hasOlder, Layout& layout) const {
    layout.certain = std::min(place.certain, layout.size);
    layout.newest = HasLongTexts() && !place.isWrap ? place.old : layout.certain;
    // The file is never shortened: after the record that passed the limit there may be what older
    // ones have left.
    const bool hasRest = hasOlder && layout.cycle > 1 && m_isLong;
    layout.oldEnd = hasRest && !HasLongTexts() ? m_lineEnd : layout.size;
    layout.hasUncertainLines = HasLongTexts() && ((place.isLong && !place.isWrap) || hasRest);
    layout.overwritten = place.old - layout.newest + layout.size - layout.oldEnd;
    PutSegment(layout, 0, layout.start);
    PutSegment(layout, layout.newest, place.old, RecordKind::kFragment);
    PutSegment(layout, place.old, layout.oldEnd);
    PutSegment(layout, layout.oldEnd, layout.size, RecordKind::kFragment);
    PutSegment(layout, layout.start, layout.newest);
}

void LogScan::Examine(Layout& layout) {
    layout.cycle = wrap.cycle;
    layout.start = wrap.start;
    const bool agree = HasLongTexts() || m_fragment.count == 0 || m_fragment.old == m_back.old;
    const bool isOpen = !HasLongTexts() && m_fragment.count > 0 && m_fragment.isSameTime;
    if (m_back.count == 1 && agree) return Put(m_back, true, layout);
    if (m_back.count == 0 && !isOpen) {
        return Put({m_lineEnd, layout.size, false, m_isLong, m_isWrap, 1}, false, layout);
    }
    layout.isCertain = false;
    layout.problem = kNotCertain;
    PutSegment(layout, 0, layout.size);
}

void ExamineLog(const TraceFile& file, Layout& layout) {
    layout.kind = FileKind::kLogFile;
    LogScan scan;
    if (file.Find(trace_text::kWrap, 0, layout.size) != TraceFile::npos) {
        RecordStream stream(file);
        stream.Start({0, layout.size, RecordKind::kRecord, false});
        for (TraceRecord record; stream.Next(record);) scan.Take(record, stream.Offset());
    }
    if (scan.wrap.cycle > 0) return scan.Examine(layout);
    layout.newest = layout.certain = file.FindLineStart(layout.size);
    PutSegment(layout, 0, layout.size);
}

// What a file without any mark of a ring holds. A ring that is being made has none either while a
// line of its header is written, but it ends with pre-fill.
FileKind FindKind(const TraceFile& file, uint64_t size) {
    if (size >= kFill.size() && IsAt(file, size - kFill.size(), kFill)) return FileKind::kRingFile;
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, true});
    TraceRecord record;
    while (stream.Next(record)) {
        if (record.kind != RecordKind::kFill) return FileKind::kLogFile;
    }
    return stream.CutBytes() == size ? FileKind::kForeignFile : FileKind::kRingFile;
}

// A ring begins with its header, if it is not damaged there.
bool BeginsAsLog(const TraceFile& file, uint64_t size) {
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, false});
    TraceRecord record;
    return stream.Next(record) && record.kind == RecordKind::kRecord &&
           record.text != trace_text::kEnvironment &&
           !record.text.ends_with(trace_text::kCommandLine);
}

}  // namespace

Layout ExamineFile(const TraceFile& file) {
    Layout layout;
    layout.size = file.Size();
    if (layout.size == 0) return layout;
    const uint64_t begin = FindBegin(file, layout.size);
    // A ring that is being made has its whole size only when its records begin.
    if (begin != TraceFile::npos) layout.size = file.Size();
    const bool isRing =
        begin != TraceFile::npos ||
        (file.Find(kTrailer, 0, layout.size) != TraceFile::npos && !BeginsAsLog(file, layout.size));
    if (isRing) {
        ExamineRing(file, begin, layout);
        return layout;
    }
    layout.kind = FindKind(file, layout.size);
    if (layout.kind == FileKind::kLogFile) {
        ExamineLog(file, layout);
        return layout;
    }
    const bool isUnused = layout.kind == FileKind::kRingFile;
    layout.isCertain = !isUnused;
    PutSegment(layout, 0, layout.size, isUnused ? RecordKind::kFill : RecordKind::kOther);
    layout.problem = isUnused ? "nothing was written yet" : "no trace file";
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
