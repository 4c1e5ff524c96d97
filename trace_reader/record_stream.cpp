#include "trace_reader/record_stream.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kStreamBlock = size_t{1} << 18;               // stays in the processor's cache
constexpr size_t kPreFillLine = trace_text::kPreFillLine - 1;  // without its line feed
constexpr uint64_t kPage = 4096;

bool IsAll(std::string_view text, char c) {
    return text.find_first_not_of(c) == text.npos;
}

}  // namespace

void RecordStream::Start(const Segment& segment) {
    m_segment = segment;
    m_rest.reset();
    m_cutBytes = m_lostBytes = 0;
    m_offset = segment.begin;
    m_position = m_end = 0;
    m_skips = segment.isCut;
}

// Moves what is left to the start of the buffer. False: there is no room for more.
bool RecordStream::MakeRoom() {
    if (m_position > 0) {
        std::memmove(m_buffer.get(), m_buffer.get() + m_position, m_end - m_position);
        m_offset += m_position;
        m_end -= m_position;
        m_position = 0;
    }
    if (m_end < m_capacity) return true;
    if (m_capacity >= kLongest) return false;
    // One byte more than the segment has: it is then read at once.
    const uint64_t length = m_segment.end - m_segment.begin + 1;
    m_capacity = m_capacity == 0 ? std::min<uint64_t>(kStreamBlock, length) : 2 * m_capacity;
    auto larger = std::make_unique_for_overwrite<char[]>(m_capacity);
    if (m_end > 0) std::memcpy(larger.get(), m_buffer.get(), m_end);
    m_buffer = std::move(larger);
    return true;
}

// The file ends here, or cannot be read.
void RecordStream::EndAt(uint64_t offset) {
    if (m_file.FailedAt(offset)) {
        m_rest = m_segment;
        m_rest->begin = std::min(offset / kPage * kPage + kPage, m_segment.end);
        m_rest->isCut = true;
    }
    m_segment.end = offset;
}

// Reads more into the buffer; m_isAll when there is no more. What the writer of a ring has
// overwritten meanwhile is dropped.
void RecordStream::Fill() {
    const bool isEmpty = m_position == m_end;
    const uint64_t at = m_offset + m_end;
    m_isAll = at >= m_segment.end || !MakeRoom();
    if (m_isAll) return;
    const uint64_t wanted = std::min<uint64_t>(m_capacity - m_end, m_segment.end - at);
    const size_t got = m_file.Read(at, m_buffer.get() + m_end, wanted);
    if (got < wanted) EndAt(at + got);
    m_end += got;
    const uint64_t valid = m_validFrom ? m_validFrom(m_segment) : m_segment.begin;
    if (valid > m_offset) {
        m_lostBytes += valid - m_offset;
        m_segment.begin = m_offset = valid;
        m_position = m_end = 0;
        m_skips = true;
    } else if (isEmpty) {
        m_head = m_parser.ParseHead(m_buffer.get(), m_end);
    }
}

// Where the record at m_position ends: before the next head. False when that is not in the buffer.
bool RecordStream::FindEnd(Bounds& bounds) {
    const char* const buffer = m_buffer.get();
    for (size_t scan = m_position;; scan = bounds.next) {
        const auto* feed = static_cast<const char*>(std::memchr(buffer + scan, '\n', m_end - scan));
        bounds.end = feed == nullptr ? m_end : static_cast<size_t>(feed - buffer);
        bounds.next = std::min(bounds.end + 1, m_end);
        if (m_end - bounds.next < PrefixParser::kHeadLength && !m_isAll) return false;
        bounds.head = m_parser.ParseHead(buffer + bounds.next, m_end - bounds.next);
        if (bounds.head.isThere != 0 || bounds.next == m_end) return true;
    }
}

// False at the end of the segment.
bool RecordStream::Load(Bounds& bounds) {
    for (;;) {
        if (m_position == m_end) {
            Fill();
            if (m_isAll) return false;
        } else if (!FindEnd(bounds)) {
            Fill();
        } else if (m_skips && m_head.isThere == 0) {
            (m_lostBytes > 0 ? m_lostBytes : m_cutBytes) += bounds.next - m_position;
            GoTo(bounds);
        } else {
            m_skips = false;
            return true;
        }
    }
}

bool RecordStream::Next(TraceRecord& record) {
    Bounds bounds;
    if (!Load(bounds)) return false;
    record.line = {m_buffer.get() + m_position, bounds.end - m_position};
    m_recordOffset = m_offset + m_position;
    Describe(record);
    GoTo(bounds);
    return true;
}

// Whether a record is certainly no pre-fill.
bool RecordStream::IsPlain(size_t end) const {
    const size_t fillEnd = m_position + kPreFillLine;
    return m_head.isThere != 0 && (end < fillEnd || m_buffer[fillEnd - 1] != '_');
}

bool RecordStream::NextBlock(RecordBlock& run, int64_t before) {
    Bounds bounds;
    bool isWhole = Load(bounds);
    const size_t begin = m_position;
    size_t runEnd = begin;
    run = {{}, 0, m_head.time, m_head.time, 0};
    while (isWhole && IsPlain(bounds.end) && m_head.time < before) {
        run.clockBack += m_head.time < run.lastTime ? 1 : 0;
        run.lastTime = m_lastTime = m_head.time;
        ++run.count;
        runEnd = bounds.end;
        GoTo(bounds);
        isWhole = m_position < m_end && FindEnd(bounds);
    }
    run.lines = {m_buffer.get() + begin, runEnd - begin};
    return run.count > 0;
}

void RecordStream::Describe(TraceRecord& record) {
    if (m_head.isThere != 0) m_lastTime = m_head.time;
    record.time = m_lastTime;
    record.thread = m_head.thread;
    record.kind = m_segment.kind;
    if (m_head.isThere != 0) {
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

constexpr uint64_t kNearTime = uint64_t{1} << 16;

// At most 64 KiB before where records of this time begin in [begin, end), as if time never went
// back.
uint64_t FindTime(const TraceFile& file, int64_t time, uint64_t begin, uint64_t end) {
    while (end - begin > kNearTime) {
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
        end = std::min(FindTime(file, until + 1, from, segment.end) + 2 * kNearTime, segment.end);
        const uint64_t later = FindSample(file, end, segment.end, INT64_MIN, until);
        if (later == segment.end) break;
        from = later;
    }
    // Times of several threads may differ a little from their order.
    constexpr uint64_t kMargin = 4 * kNearTime;
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
    for (uint64_t length = kNearTime;; length *= 4) {
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
