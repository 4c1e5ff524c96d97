// What a source does when its file is written on.
#include <algorithm>
#include <utility>

#include "trace_reader/trace_source.h"
#include "trace_reader/trailer.h"
#include "trace_reader/writer.h"

bool TraceSource::Advance() {
    if (m_file.IsCompressed()) return false;
    if (!m_file.IsOpen()) return Reopen();
    // First: when the name already leads to another file, nothing more is written into this one.
    const bool isReplaced = m_file.IsReplaced();
    return AdvanceFile() || (isReplaced && Reopen());
}

bool TraceSource::AdvanceFile() {
    if (!IsReady(m_layout) && m_layout.run.empty()) return BeginAnew();
    return m_layout.kind == FileKind::kRingFile ? AdvanceRing() : AdvanceLog();
}

bool TraceSource::Reopen() {
    constexpr std::string_view kCompressed = ".gz";
    if (m_path.ends_with(kCompressed)) return false;
    TraceFile file;
    if (!file.Open(m_path).empty() || file.IsCompressed()) return false;
    m_stream.reset();
    m_guard.reset();
    m_log.reset();
    m_layout = {};
    m_file = std::move(file);
    return BeginAnew();
}

bool TraceSource::BeginAnew(bool isOvertaken) {
    const uint64_t shown = m_layout.newest;
    Layout layout = Examine();
    const bool isReady = IsReady(layout);
    m_facts.isOvertaken |= isOvertaken;
    // What is not whole yet is shown once it is; the start-up part of a log has been.
    for (Segment& each : layout.segments) {
        if (isOvertaken && m_log && each.begin == 0) each.begin = std::min(shown, each.end);
    }
    std::erase_if(layout.segments,
                  [&](const Segment& each) { return !isReady || each.begin == each.end; });
    m_facts.problem.clear();
    m_facts.writer = FindWriter(m_file);
    Take(std::move(layout));
    return !m_layout.segments.empty();
}

// Shows what stands behind the newest record that was known, to the end of its cycle when that is
// over, and what the next cycle has.
bool TraceSource::GoOn(Layout layout, bool isNextCycle) {
    const auto put = [&layout](uint64_t begin, uint64_t end) {
        if (begin < end) layout.segments.push_back({begin, end, RecordKind::kRecord, false});
    };
    layout.segments.clear();
    put(m_layout.newest, isNextCycle ? layout.oldEnd : layout.newest);
    if (isNextCycle) put(layout.start, layout.newest);
    m_layout = std::move(layout);
    m_facts.cycle = m_layout.cycle;
    Guard();
    m_segment = 0;
    StartSegment();
    return !m_layout.segments.empty();
}

// Whether the bytes in front of the newest record's end are as they were, as far as they stand
// behind `from`.
bool TraceSource::IsKept(uint64_t from) const {
    const uint64_t begin = std::max(m_layout.newest - m_layout.mark.size(), from);
    if (begin >= m_layout.newest) return false;
    const std::string now = m_file.Read(begin, m_layout.newest - begin);
    return m_layout.mark.ends_with(now) && now.size() == m_layout.newest - begin;
}

bool TraceSource::IsUntouched() const {
    if (m_layout.kind != FileKind::kRingFile || m_file.Size() != m_layout.size) return false;
    const uint64_t length = m_layout.mark.size();
    const std::string now = m_file.Read(m_layout.newest - length, length + kTrailerLength);
    return m_layout.hasTrailer && now.starts_with(m_layout.mark) &&
           now.ends_with(kTrailerLine.substr(1));
}

// Where the writer is now. Within a cycle the trailer only moves on; the next cycle overwrites the
// first bytes before there is a trailer again. A ring without its begin record has all of that
// found anew.
bool TraceSource::LookAgain(Layout& layout, bool mustBeLikely) const {
    const auto find = [&] {
        const std::string first = m_file.Read(m_layout.start, m_layout.first.size());
        const uint64_t from = first == m_layout.first ? m_layout.newest : m_layout.start;
        const Trailer found = FindTrailerFrom(m_file, m_layout.start, from, m_layout.size);
        return found.isLikely || !mustBeLikely ? found.offset : TraceFile::kNowhere;
    };
    if (layout.run.empty()) {
        layout = ExamineFile(m_file);
        return layout.hasTrailer;
    }
    if (!TakePlace(m_file, find, layout)) return false;
    layout.hasTrailer = true;
    layout.problem.clear();
    return true;
}

bool TraceSource::IsSameRun() const {
    const uint64_t length = m_layout.run.size();
    return m_file.Size() == m_layout.size &&
           m_file.Read(m_layout.start - length, length) == m_layout.run;
}

// Waits for a writer that is interrupted between record and trailer: what the log has of it must
// not be shown before.
bool TraceSource::AwaitPlace(Layout& layout) const {
    if (LookAgain(layout, true) || LookAgain(layout, true)) return true;
    const bool isLive = IsSameRun() && IsWriter(m_facts.writer, m_file);
    for (const Patience patience; isLive && patience.Wait();) {
        if (LookAgain(layout, true)) return true;
    }
    return LookAgain(layout, false);
}

bool TraceSource::AdvanceRing() {
    if (IsUntouched()) return false;
    if (!IsSameRun()) {
        // A header that has grown over the begin record leaves the rest as it was.
        if (m_file.Size() != m_layout.size || !IsKept(0)) return BeginAnew();
        m_layout.run.clear();
    }
    Layout layout = m_layout;
    const bool isFound = AwaitPlace(layout);
    if (!IsSameRun()) return BeginAnew();
    if (!isFound) return false;
    if (layout.run != m_layout.run || layout.start != m_layout.start) return BeginAnew();
    const bool isNextCycle = !layout.first.starts_with(m_layout.first);
    if (!isNextCycle) return layout.newest > m_layout.newest && GoOn(std::move(layout), false);
    if (layout.newest > m_layout.newest || !IsKept(layout.newest + kTrailerLength)) {
        return BeginAnew(true);
    }
    layout.cycle = 1;
    layout.oldEnd = FindDots(m_file, m_layout.newest, m_layout.size);
    return GoOn(std::move(layout), true);
}

bool TraceSource::AdvanceLog() {
    switch (m_log->Look(m_layout)) {
        case LogFollower::News::kNone:
            return false;
        case LogFollower::News::kMore:
            m_facts.cycle = m_layout.cycle;
            m_beginsInHeader = m_isInHeader;
            m_segment = 0;
            StartSegment();
            return true;
        case LogFollower::News::kOvertaken:
            return BeginAnew(true);
        case LogFollower::News::kAnew:
        case LogFollower::News::kFailed:
            break;
    }
    return BeginAnew();
}
