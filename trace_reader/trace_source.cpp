#include "trace_reader/trace_source.h"

#include <algorithm>
#include <ctime>

using trace_text::kTrailer;

bool TraceSource::Open() {
    m_facts = {};
    const bool isOpen = m_file.Open(m_path);
    m_facts.error = m_file.Error();
    m_facts.isCompressed = m_file.IsCompressed();
    if (!isOpen) return false;
    Layout layout = Examine();
    if (m_follows && layout.kind == FileKind::kRingFile && !IsReady(layout)) {
        constexpr timespec kWhileItIsMade = {0, 20'000'000};
        (void)nanosleep(&kWhileItIsMade, nullptr);
        layout = Examine();
    }
    Take(std::move(layout));
    return true;
}

// A log that is followed is read in a copy.
Layout TraceSource::Examine() {
    m_stream.reset();
    m_log.reset();
    m_facts.writer = FindWriter(m_file);
    Layout layout = ExamineFile(m_file);
    if (!m_follows || m_file.IsCompressed() || layout.kind != FileKind::kLogFile) return layout;
    m_log.emplace(m_file);
    layout = ExamineFile(m_log->File());
    m_log->SetCertain(layout.certain);
    return layout;
}

// Whether one can go on from the newest record of this layout.
bool TraceSource::IsReady(const Layout& layout) const {
    if (layout.kind == FileKind::kRingFile) return layout.isCertain && layout.hasStart;
    return layout.kind == FileKind::kLogFile && m_log;
}

void TraceSource::Take(Layout layout) {
    m_layout = std::move(layout);
    const uint64_t overwritten = m_facts.overwritten;
    static_cast<FileFacts&>(m_facts) = m_layout;
    m_facts.overwritten += overwritten;
    if (m_follows && IsLog() && m_layout.cycle == 0) m_layout.segments.back().end = m_layout.newest;
    m_isInHeader = false;
    m_isInFront = true;
    Begin(m_layout.segments);
}

void TraceSource::Begin(std::vector<Segment> parts) {
    m_parts = std::move(parts);
    m_part = 0;
    StartPart();
}

void TraceSource::Rewind() {
    m_facts.records = m_facts.clockBack = m_facts.foreign = 0;
    m_isInHeader = false;
    m_isInFront = !m_parts.empty() && m_parts[0].begin == 0;
    m_part = 0;
    StartPart();
}

void TraceSource::StartPart() {
    m_stream.reset();
    if (m_part >= m_parts.size()) return;
    const bool isLive = m_layout.kind == FileKind::kRingFile && m_layout.isCertain;
    m_stream.emplace(Readable(), isLive ? RecordStream::ValidFrom(RingGuard(m_file, m_layout))
                                        : RecordStream::ValidFrom());
    m_stream->Start(m_parts[m_part]);
}

// What cannot be read is passed over, in steps that grow while nothing can be read.
void TraceSource::EndPart() {
    Segment& part = m_parts[m_part];
    if (part.kind == RecordKind::kRecord) {
        m_facts.lost += m_stream->LostBytes();
        if (m_layout.cycle > 0) m_facts.overwritten += m_stream->CutBytes();
    }
    if (auto rest = m_stream->Rest()) {
        m_gap = rest->begin - part.begin > 4096 ? 0 : 2 * m_gap + 4096;
        rest->begin = part.end = std::min(rest->begin + m_gap, rest->end);
        if (rest->begin < rest->end)
            m_parts.insert(m_parts.begin() + static_cast<std::ptrdiff_t>(m_part) + 1, *rest);
    }
    if (m_facts.error.empty()) m_facts.error = m_file.Error();
    ++m_part;
    StartPart();
}

// What a header's lines have: a name and its value, or a title.
static bool IsOfHeader(std::string_view text) {
    return text == trace_text::kHeaderEnd || text.find_first_of("=:") != text.npos;
}

bool TraceSource::IsHidden(TraceRecord& record) {
    if (record.kind == RecordKind::kOther) m_facts.foreign += record.line.size();
    if (!IsLog() && record.kind == RecordKind::kWrap) record.kind = RecordKind::kRecord;
    if (IsLog() && record.kind == RecordKind::kRecord) {
        // A log has its header at its beginning or has none: a message may look like a part of one.
        // Only failures of the ring come before it.
        if (record.text == trace_text::kEnvironment && m_isInFront) m_isInHeader = true;
        m_isInFront = m_isInFront && record.text.starts_with(trace_text::kRingFailure);
        m_isInHeader = m_isInHeader && IsOfHeader(record.text);
        if (m_isInHeader) record.kind = RecordKind::kHeader;
        if (record.text == trace_text::kHeaderEnd) m_isInHeader = false;
    }
    return record.kind != RecordKind::kRecord && !m_showsAll;
}

void TraceSource::Count(const RecordBlock& run) {
    if (m_facts.records == 0) m_facts.firstTime = run.firstTime;
    if (m_facts.records > 0 && run.firstTime < m_facts.lastTime) ++m_facts.clockBack;
    m_facts.clockBack += run.clockBack;
    m_facts.lastTime = run.lastTime;
    m_facts.records += run.count;
}

bool TraceSource::Next(TraceRecord& record) {
    while (m_stream) {
        const bool isSkipped = !m_showsAll && m_parts[m_part].kind != RecordKind::kRecord;
        if (isSkipped || !m_stream->Next(record)) {
            EndPart();
            continue;
        }
        if (IsHidden(record)) continue;
        record.source = m_number;
        record.sequence = static_cast<uint64_t>(m_part) << 40 | m_stream->Offset();
        if (record.kind == RecordKind::kRecord) Count({{}, 1, record.time, record.time, 0});
        return true;
    }
    return false;
}

bool TraceSource::NextBlock(RecordBlock& run, int64_t before) {
    // A ring has nothing but pre-fill to be hidden among its records.
    const bool isPlain = m_stream && m_layout.kind == FileKind::kRingFile && !m_showsAll &&
                         m_parts[m_part].kind == RecordKind::kRecord;
    if (!isPlain || !m_stream->NextBlock(run, before)) return false;
    Count(run);
    return true;
}

void TraceSource::Select(int64_t since, int64_t until, uint64_t last) {
    constexpr uint64_t kSmall = uint64_t{1} << 20;
    m_isShortened = false;
    m_parts = m_layout.segments;
    // A small log is as fast to read, and its header must be seen.
    if (!m_layout.isCertain) since = INT64_MIN, until = INT64_MAX;
    if (IsLog() && m_layout.size < kSmall) return Rewind();
    for (Segment& part : m_parts) {
        if (part.kind == RecordKind::kRecord) NarrowToTimes(Readable(), part, since, until);
    }
    for (size_t i = m_parts.size(); i-- > 0 && last < UINT64_MAX;) {
        if (m_parts[i].kind != RecordKind::kRecord) continue;
        const uint64_t begin = m_parts[i].begin;
        if (last == 0) m_parts[i].begin = m_parts[i].end;
        if (last > 0) last -= NarrowToLast(Readable(), m_parts[i], last);
        m_isShortened = m_isShortened || m_parts[i].begin > begin;
    }
    Rewind();
}

bool TraceSource::IsGood() const {
    return IsOpen() && m_facts.error.empty() && m_facts.kind != FileKind::kForeignFile;
}

bool TraceSource::Advance() {
    if (m_file.IsCompressed()) return false;
    if (!m_file.IsOpen()) return Reopen();
    // First: when the name already leads to another file, nothing more is written into this one.
    const bool isReplaced = m_file.IsReplaced();
    return AdvanceFile() || (isReplaced && Reopen());
}

bool TraceSource::AdvanceFile() {
    if (!IsReady(m_layout)) return BeginAgain();
    return IsLog() ? AdvanceLog() : AdvanceRing();
}

bool TraceSource::Reopen() {
    TraceFile file;
    if (m_path.ends_with(".gz") || !file.Open(m_path) || file.IsCompressed()) return false;
    m_stream.reset();
    m_log.reset();
    m_layout = {};
    m_file = std::move(file);
    m_facts.error.clear();
    return BeginAgain();
}

bool TraceSource::BeginAgain(bool isOvertaken) {
    const uint64_t shown = m_layout.newest;
    Layout layout = Examine();
    m_facts.isOvertaken |= isOvertaken;
    // What is not whole yet is shown once it is; the start-up part of a log has been.
    const bool isReady = IsReady(layout);
    for (Segment& each : layout.segments) {
        if (isOvertaken && m_log && each.begin == 0) each.begin = std::min(shown, each.end);
    }
    std::erase_if(layout.segments,
                  [&](const Segment& each) { return !isReady || each.begin == each.end; });
    Take(std::move(layout));
    return !m_parts.empty();
}

// Whether the bytes before the newest record's end are as they were, as far as they stand after
// `from`.
bool TraceSource::IsKept(uint64_t from) const {
    const uint64_t begin = std::max(m_layout.newest - m_layout.mark.size(), from);
    if (begin >= m_layout.newest) return false;
    const std::string now = m_file.Read(begin, m_layout.newest - begin);
    return m_layout.mark.ends_with(now) && now.size() == m_layout.newest - begin;
}

bool TraceSource::IsSameRun() const {
    const uint64_t length = m_layout.run.size();
    return m_file.Size() == m_layout.size &&
           m_file.Read(m_layout.start - length, length) == m_layout.run;
}

// Where the writer is now. Within a cycle the trailer only moves on; the next cycle overwrites the
// first bytes before there is a trailer again. A ring without its begin record has all of that
// found again.
bool TraceSource::FindPlace(Layout& layout) const {
    if (layout.run.empty()) {
        layout = ExamineFile(m_file);
        return layout.isCertain;
    }
    const bool isSameCycle = m_file.Read(layout.start, layout.first.size()) == layout.first;
    return FindNewest(m_file, isSameCycle ? layout.newest : layout.start, layout);
}

// A writer that was stopped within a record gets time to end it: with what other files show of the
// same moment its records would come out of order.
bool TraceSource::AdvanceRing() {
    constexpr timespec kPause = {0, 1'000'000};
    for (int tries = 0; tries < 20; ++tries) {
        if (const auto hasMore = LookAtRing()) return *hasMore;
        (void)nanosleep(&kPause, nullptr);
    }
    return false;
}

// Gives what stands after the newest record that was known, to the end of its cycle when that is
// over, and what the next cycle has. Nothing when the writer is within a record.
std::optional<bool> TraceSource::LookAtRing() {
    const bool isSameSize = m_file.Size() == m_layout.size;
    if (isSameSize && IsUntouched(m_file, m_layout)) return false;
    if (!IsSameRun()) {
        // A header that has grown over the begin record leaves the rest as it was.
        if (!isSameSize || !IsKept(0)) return BeginAgain();
        m_layout.run.clear();
    }
    Layout layout = m_layout;
    const bool isFound = FindPlace(layout);
    if (!IsSameRun()) return BeginAgain();
    if (!isFound) return std::nullopt;
    if (layout.run != m_layout.run || layout.start != m_layout.start) return BeginAgain();
    const bool isNextCycle = !layout.first.starts_with(m_layout.first);
    const uint64_t shown = m_layout.newest;
    const bool isTooLate =
        isNextCycle && (layout.newest > shown || !IsKept(layout.newest + kTrailer.size()));
    if (isTooLate) return BeginAgain(true);
    std::vector<Segment> parts;
    if (isNextCycle) {
        parts = {{shown, FindDots(m_file, shown, layout.size), RecordKind::kRecord, false},
                 {layout.start, layout.newest, RecordKind::kRecord, false}};
        m_facts.cycle = layout.cycle = 1;
    } else {
        parts = {{shown, layout.newest, RecordKind::kRecord, false}};
    }
    std::erase_if(parts, [](const Segment& each) { return each.begin >= each.end; });
    m_layout = std::move(layout);
    Begin(std::move(parts));
    return !m_parts.empty();
}

bool TraceSource::AdvanceLog() {
    switch (m_log->Look(m_layout)) {
        case LogCopy::News::kNone:
            return false;
        case LogCopy::News::kMore:
            m_facts.cycle = m_layout.cycle;
            Begin(m_layout.segments);
            return true;
        case LogCopy::News::kOvertaken:
            return BeginAgain(true);
        case LogCopy::News::kRestarted:
            break;
    }
    return BeginAgain();
}
