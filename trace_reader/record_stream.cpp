#include "trace_reader/record_stream.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kBlock = size_t{1} << 18;                     // stays in the processor's cache
constexpr size_t kPreFillLine = trace_text::kPreFillLine - 1;  // without its line feed
constexpr uint64_t kPage = 4096;

bool IsAll(std::string_view text, char c) {
    return text.find_first_not_of(c) == text.npos;
}

}  // namespace

void RecordStream::Start(const Segment& segment) {
    m_segment = segment;
    m_cutBytes = 0;
    m_lostBytes = 0;
    m_rest.reset();
    Restart(segment.begin);
    if (segment.isCut) SkipCut();
}

void RecordStream::Restart(uint64_t offset) {
    m_offset = offset;
    m_position = m_end = 0;
    size_t scan = 0;
    while (ReadMore(scan) == More::kMoved) continue;
    m_head = m_parser.ParseHead(m_buffer.get(), m_end);
}

// Goes to the first line that begins with a prefix.
void RecordStream::SkipCut() {
    const uint64_t lostBefore = m_lostBytes;
    const uint64_t from = m_offset + m_position;
    while (m_head.isThere == 0 && m_position < m_end) {
        const uint64_t lost = m_lostBytes;
        size_t next = 0;
        (void)FindEnd(next);
        if (m_lostBytes == lost) m_position = next;
    }
    if (m_lostBytes == lostBefore) m_cutBytes += m_offset + m_position - from;
}

bool RecordStream::MakeRoom(size_t& scan) {
    if (m_position > 0) {
        std::memmove(m_buffer.get(), m_buffer.get() + m_position, m_end - m_position);
        m_offset += m_position;
        m_end -= m_position;
        scan -= m_position;
        m_position = 0;
    }
    if (m_end < m_capacity) return true;
    if (m_capacity >= kLongest) return false;
    // One byte more than the segment has: it is then read at once.
    const uint64_t length = m_segment.end - m_segment.begin + 1;
    m_capacity = m_capacity == 0 ? std::min<uint64_t>(kBlock, length) : 2 * m_capacity;
    auto larger = std::make_unique_for_overwrite<char[]>(m_capacity);
    if (m_end > 0) std::memcpy(larger.get(), m_buffer.get(), m_end);
    m_buffer = std::move(larger);
    return true;
}

// Where the file has become shorter, or cannot be read.
void RecordStream::EndAt(uint64_t offset) {
    if (m_file.FailedAt(offset)) {
        m_rest = m_segment;
        m_rest->begin = std::min(offset / kPage * kPage + kPage, m_segment.end);
        m_rest->isCut = true;
    }
    m_segment.end = offset;
}

// Appends to the buffer. `scan` is a position in it and moves with the bytes. kMoved: the writer of
// a ring came past, and the buffer begins anew with what it has not overwritten.
RecordStream::More RecordStream::ReadMore(size_t& scan) {
    if (m_offset + m_end >= m_segment.end || !MakeRoom(scan)) return More::kEnd;
    const uint64_t at = m_offset + m_end;
    const uint64_t wanted = std::min<uint64_t>(m_capacity - m_end, m_segment.end - at);
    const size_t got = m_file.Read(at, m_buffer.get() + m_end, wanted);
    if (got < wanted) EndAt(at + got);
    const uint64_t valid = m_validFrom ? m_validFrom(m_segment) : m_segment.begin;
    if (valid > m_offset) {
        m_lostBytes += valid - m_offset;
        m_segment.begin = m_offset = valid;
        m_position = m_end = 0;
        return More::kMoved;
    }
    m_end += got;
    return got > 0 ? More::kRead : More::kEnd;
}

// The end of the record at m_position: its last line feed, or the end of the segment. `next` is
// where the next one begins, whose head is then in m_head.
size_t RecordStream::FindEnd(size_t& next) {
    for (size_t scan = m_position;;) {
        const char* const from = m_buffer.get() + scan;
        const auto* feed = static_cast<const char*>(std::memchr(from, '\n', m_end - scan));
        const size_t end = feed == nullptr ? m_end : scan + static_cast<size_t>(feed - from);
        next = std::min(end + 1, m_end);
        if (m_end - next < PrefixParser::kHeadLength) {
            scan = end;
            const More more = ReadMore(scan);
            if (more == More::kMoved) Restart(m_offset);
            if (more == More::kMoved) return next = 0;
            if (more == More::kRead) continue;
        }
        m_head = m_parser.ParseHead(m_buffer.get() + next, m_end - next);
        if (m_head.isThere != 0 || next == m_end) return end;
        scan = next;
    }
}

// Whether the segment goes on after a record that was too long.
bool RecordStream::Continue() {
    size_t scan = m_position;
    const More more = ReadMore(scan);
    if (more == More::kMoved) Restart(m_offset);
    m_head = m_parser.ParseHead(m_buffer.get() + m_position, m_end - m_position);
    if (more == More::kMoved) SkipCut();
    return m_position < m_end;
}

// The record at m_position and its head, read as far as it goes. False at the segment's end.
bool RecordStream::FindWhole(PrefixParser::Head& head, size_t& end, size_t& next) {
    for (;;) {
        if (m_position == m_end && !Continue()) return false;
        head = m_head;
        const uint64_t lost = m_lostBytes;
        end = FindEnd(next);
        if (m_lostBytes == lost) return true;
        SkipCut();
    }
}

// As FindEnd, but false when the record may go on after the buffer.
bool RecordStream::FindInBuffer(size_t& end, size_t& next) {
    const char* const buffer = m_buffer.get();
    for (size_t scan = m_position;; scan = next) {
        const auto* feed = static_cast<const char*>(std::memchr(buffer + scan, '\n', m_end - scan));
        if (feed == nullptr) return false;
        end = static_cast<size_t>(feed - buffer);
        next = end + 1;
        if (m_end - next < PrefixParser::kHeadLength) return false;
        m_head = m_parser.ParseHead(buffer + next, m_end - next);
        if (m_head.isThere != 0) return true;
    }
}

bool RecordStream::Next(TraceRecord& record) {
    PrefixParser::Head head;
    size_t end = 0, next = 0;
    if (!FindWhole(head, end, next)) return false;
    record.line = {m_buffer.get() + m_position, end - m_position};
    m_recordOffset = m_offset + m_position;
    m_position = next;
    Describe(record, head);
    return true;
}

// Whether a record is certainly no pre-fill.
bool RecordStream::IsPlain(const PrefixParser::Head& head, size_t end) const {
    const size_t fillEnd = m_position + kPreFillLine;
    return head.isThere != 0 && (end < fillEnd || m_buffer[fillEnd - 1] != '_');
}

bool RecordStream::NextRun(TraceRun& run, int64_t before) {
    PrefixParser::Head head;
    size_t end = 0, next = 0;
    bool isWhole = FindWhole(head, end, next);
    const size_t begin = m_position;
    size_t runEnd = begin;
    run = {{}, 0, head.time, head.time, 0};
    while (isWhole && IsPlain(head, end) && head.time < before) {
        run.clockBack += head.time < run.lastTime ? 1 : 0;
        run.lastTime = m_lastTime = head.time;
        ++run.count;
        runEnd = end;
        m_position = next;
        head = m_head;
        isWhole = m_position < m_end && FindInBuffer(end, next);
    }
    m_head = head;  // of the record that did not come along
    run.lines = {m_buffer.get() + begin, runEnd - begin};
    return run.count > 0;
}

void RecordStream::Describe(TraceRecord& record, const PrefixParser::Head& head) {
    if (head.isThere != 0) m_lastTime = head.time;
    record.time = m_lastTime;
    record.thread = head.thread;
    record.kind = m_segment.kind;
    if (head.isThere != 0) {
        m_parser.ParseRest(record);
        Classify(record);
        return;
    }
    record.text = record.line;
    record.tag = {};
    ClearColumns(record);
    if (record.kind == RecordKind::kRecord) record.kind = RecordKind::kOther;
}

void RecordStream::Classify(TraceRecord& record) const {
    if (m_segment.kind != RecordKind::kRecord || record.text.empty()) return;
    if (record.text[0] == '-' && record.text.starts_with(trace_text::kWrap)) {
        record.kind = RecordKind::kWrap;
    } else if (record.text[0] == '_') {
        const size_t length = std::min(record.line.find('\n'), record.line.size());
        const size_t prefix = record.line.size() - record.text.size();
        const bool isFill =
            length == kPreFillLine && IsAll(record.text.substr(0, length - prefix), '_');
        if (isFill) record.kind = RecordKind::kFill;
    }
}

std::optional<RecordPlace> FindRecord(const TraceFile& file, uint64_t begin, uint64_t end) {
    // Most often a few lines suffice; the longest records are far apart.
    for (const uint64_t window : {uint64_t{1} << 14, end - begin}) {
        RecordStream stream(file);
        stream.Start({begin, std::min(begin + window, end), RecordKind::kRecord, true});
        TraceRecord record;
        if (stream.Next(record)) return RecordPlace{stream.Offset(), record.time, record.kind};
    }
    return std::nullopt;
}

namespace {

constexpr uint64_t kNear = uint64_t{1} << 16;

// At most 64 KiB before where records of this time begin in [begin, end), as if time never went
// back.
uint64_t FindTime(const TraceFile& file, int64_t time, uint64_t begin, uint64_t end) {
    while (end - begin > kNear) {
        const uint64_t middle = begin + (end - begin) / 2;
        const auto place = FindRecord(file, middle, end);
        if (place && place->kind == RecordKind::kRecord && place->time < time) {
            begin = place->offset;
        } else {
            end = middle;
        }
    }
    return begin;
}

// The first of some places in [begin, end) whose record has a time in this range; `end`: none.
uint64_t FindSample(const TraceFile& file, uint64_t begin, uint64_t end, int64_t since,
                    int64_t until) {
    constexpr uint64_t kPlaces = 100;
    const uint64_t step = (end - begin) / kPlaces + 1;
    for (uint64_t at = begin; at < end;) {
        const auto place = FindRecord(file, at, end);
        if (!place) break;
        const bool fits = place->time >= since && place->time <= until;
        if (fits && place->kind == RecordKind::kRecord) return at;
        at = std::max(at + step, place->offset);
    }
    return end;
}

}  // namespace

void NarrowToTimes(const TraceFile& file, Segment& segment, int64_t since, int64_t until) {
    uint64_t begin = segment.begin, end = segment.end;
    for (uint64_t to = segment.end; since != INT64_MIN;) {
        begin = FindTime(file, since, segment.begin, to);
        const uint64_t earlier = FindSample(file, segment.begin, begin, since, INT64_MAX);
        if (earlier == begin) break;
        to = earlier;
    }
    for (uint64_t from = segment.begin; until < INT64_MAX;) {
        end = std::min(FindTime(file, until + 1, from, segment.end) + 2 * kNear, segment.end);
        const uint64_t later = FindSample(file, end, segment.end, INT64_MIN, until);
        if (later == segment.end) break;
        from = later;
    }
    // Times of several threads may differ a little from their order.
    constexpr uint64_t kMargin = 4 * kNear;
    if (begin > segment.begin + kMargin) {
        const auto place = FindRecord(file, begin - kMargin, segment.end);
        segment.begin = place ? place->offset : segment.end;
        segment.isCut = false;
    }
    if (end + kMargin < segment.end) {
        const auto place = FindRecord(file, end + kMargin, segment.end);
        if (place) segment.end = std::max(place->offset, segment.begin);
    }
}

uint64_t NarrowToLast(const TraceFile& file, Segment& segment, uint64_t most) {
    RecordStream stream(file);
    TraceRecord record;
    const auto isNext = [&] {
        while (stream.Next(record)) {
            if (record.kind == RecordKind::kRecord) return true;
        }
        return false;
    };
    for (uint64_t length = kNear;; length *= 4) {
        Segment part = segment;
        const bool isAll = length >= segment.end - segment.begin;
        if (!isAll) part.begin = segment.end - length;
        part.isCut = part.isCut || !isAll;
        uint64_t count = 0;
        stream.Start(part);
        while (isNext()) ++count;
        if (count < most && !isAll) continue;
        if (count <= most) return count;
        stream.Start(part);
        for (uint64_t skipped = 0; skipped <= count - most && isNext();) ++skipped;
        segment.begin = stream.Offset();
        segment.isCut = false;
        return most;
    }
}
