#include "trace_reader/trace_source.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "trace_reader/seek_time.h"
#include "trace_reader/writer.h"

namespace {

constexpr std::string_view kHeaderBegin = "Orvana Environment:";
constexpr std::string_view kHeaderEnd = "# End of header.";

// What a header's lines have: a name and its value, or a title.
bool IsOfHeader(std::string_view text) {
    return text == kHeaderEnd || text.find_first_of("=:") != text.npos;
}

}  // namespace

bool TraceSource::Open() {
    m_facts = {};
    m_facts.problem = m_file.Open(m_path);
    m_facts.isCompressed = m_file.IsCompressed();
    if (!m_file.IsOpen()) return false;
    m_facts.writer = FindWriter(m_file);
    m_facts.isWritten = !m_facts.isCompressed && IsWriter(m_facts.writer, m_file);
    Take(Examine());
    return true;
}

// A ring of a reader that follows may be without its begin record for a moment, while it is made.
Layout TraceSource::Examine() {
    constexpr int kPatience = 100;
    m_stream.reset();
    m_log.reset();
    Layout layout = ExamineFile(m_file);
    if (!m_follows || m_file.IsCompressed()) return layout;
    for (int i = 0; i < kPatience && layout.hasTrailer && layout.run.empty(); ++i) {
        usleep(1000);
        layout = ExamineFile(m_file);
    }
    if (layout.kind != FileKind::kLogFile) return layout;
    m_log.emplace(m_file);
    if (m_log->Begin()) {
        layout = ExamineFile(m_log->Copy(), m_log->Position());
        m_log->SetCertain(layout.certain);
        return layout;
    }
    m_log.reset();
    layout.problem = "no memory to follow it";
    return layout;
}

// Whether one can go on from the newest record of this layout.
bool TraceSource::IsReady(const Layout& layout) const {
    return layout.hasTrailer || (layout.kind == FileKind::kLogFile && m_log);
}

void TraceSource::Take(Layout layout) {
    m_layout = std::move(layout);
    m_facts.kind = m_layout.kind;
    m_facts.cycle = m_layout.cycle;
    m_facts.size = m_layout.size;
    m_facts.hasUncertainLines = m_layout.hasUncertainLines;
    m_facts.overwritten += m_layout.overwritten;
    if (m_facts.problem.empty()) m_facts.problem = m_layout.problem;
    const bool isAppended = m_layout.kind == FileKind::kLogFile && m_layout.cycle == 0;
    if (m_follows && isAppended) m_layout.segments.back().end = m_layout.newest;
    // What its writer is about to make whole is shown then.
    const bool isUnready = !m_file.IsCompressed() && !IsReady(m_layout);
    if (m_follows && isUnready && IsWriter(FindWriter(m_file), m_file)) {
        m_layout.segments.clear();
        m_layout.run.clear();
    }
    m_beginsInHeader = false;
    Guard();
    Rewind();
}

void TraceSource::Guard() {
    m_guard.reset();
    if (m_layout.kind == FileKind::kRingFile && m_layout.hasTrailer) {
        m_guard.emplace(m_file, m_layout);
    }
}

void TraceSource::Rewind() {
    m_facts.records = m_facts.clockBack = m_facts.foreign = 0;
    m_segment = 0;
    m_isInHeader = m_beginsInHeader;
    m_isInFront = !m_layout.segments.empty() && m_layout.segments[0].begin == 0;
    StartSegment();
}

void TraceSource::StartSegment() {
    m_stream.reset();
    if (m_segment >= m_layout.segments.size()) return;
    m_stream.emplace(m_log ? m_log->Copy() : m_file, m_guard ? &*m_guard : nullptr);
    m_stream->Start(m_layout.segments[m_segment]);
}

void TraceSource::EndSegment() {
    if (m_layout.segments[m_segment].kind == RecordKind::kRecord) {
        m_facts.lost += m_stream->LostBytes();
        if (m_layout.cycle > 0) m_facts.overwritten += m_stream->CutBytes();
    }
    ++m_segment;
    StartSegment();
}

bool TraceSource::IsHidden(TraceRecord& record) {
    if (record.kind == RecordKind::kOther) m_facts.foreign += record.line.size();
    const bool isLog = m_layout.kind == FileKind::kLogFile;
    if (!isLog && record.kind == RecordKind::kWrap) record.kind = RecordKind::kRecord;
    if (isLog && record.kind == RecordKind::kRecord) {
        // A log has its header in front or has none: a message may look like a part of one. Only
        // failures of the ring come before it.
        if (record.text == kHeaderBegin && m_isInFront) m_isInHeader = true;
        m_isInFront = m_isInFront && record.text.starts_with("### InitRingBuffer(): ");
        m_isInHeader = m_isInHeader && IsOfHeader(record.text);
        if (m_isInHeader) record.kind = RecordKind::kHeader;
        if (record.text == kHeaderEnd) m_isInHeader = false;
    }
    return record.kind != RecordKind::kRecord && !m_showsAll;
}

void TraceSource::Count(const TraceRun& run) {
    if (m_facts.records == 0) m_facts.firstTime = run.firstTime;
    if (m_facts.records > 0 && run.firstTime < m_facts.lastTime) ++m_facts.clockBack;
    m_facts.clockBack += run.clockBack;
    m_facts.lastTime = run.lastTime;
    m_facts.records += run.count;
}

bool TraceSource::Next(TraceRecord& record) {
    while (m_stream) {
        const bool isSkipped =
            !m_showsAll && m_layout.segments[m_segment].kind != RecordKind::kRecord;
        if (isSkipped || !m_stream->Next(record)) {
            EndSegment();
            continue;
        }
        if (IsHidden(record)) continue;
        record.source = m_number;
        record.sequence = static_cast<uint64_t>(m_segment) << 40 | m_stream->Offset();
        if (record.kind == RecordKind::kRecord) Count({{}, 1, record.time, record.time, 0});
        return true;
    }
    return false;
}

bool TraceSource::NextRun(TraceRun& run, RunLimit* limit) {
    // A ring has nothing but pre-fill to be hidden among its records.
    const bool isPlain = m_stream && m_guard && !m_showsAll &&
                         m_layout.segments[m_segment].kind == RecordKind::kRecord;
    if (!isPlain || !m_stream->NextRun(run, limit)) return false;
    Count(run);
    return true;
}

void TraceSource::SeekTime(int64_t time) {
    for (Segment& segment : m_layout.segments) {
        if (segment.kind == RecordKind::kRecord)
            SkipOlder(m_log ? m_log->Copy() : m_file, segment, time);
    }
    Rewind();
}
