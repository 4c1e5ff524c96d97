// What a source does when its file is written on.
#include <utility>

#include "tools/trace_reader/trace_source.h"

bool TraceSource::IsUntouched() const {
    if (m_file.Size() != m_layout.size) return false;
    if (m_layout.kind == FileKind::kLogFile) return !m_isRecent && m_file.Modified() == m_modified;
    const uint64_t begin = m_layout.newest - m_before.size();
    return m_file.Read(begin, m_layout.mark.size()) == m_layout.mark;
}

bool TraceSource::Advance() {
    if (m_file.IsCompressed() && m_file.IsOpen()) return false;
    if (!m_file.IsOpen()) return Reopen();
    if (!IsReady(m_layout)) {
        Layout layout = Examine();
        return IsReady(layout) ? BeginAnew(std::move(layout)) : Reopen();
    }
    if (IsUntouched()) return Reopen();
    return m_layout.kind == FileKind::kRingFile ? AdvanceRing() : AdvanceLog();
}

// The name may lead to another file by now. What was in the old one has been read.
bool TraceSource::Reopen() {
    if (m_file.IsOpen() && !m_file.IsReplaced()) return false;
    TraceFile file;
    if (!file.Open(m_path).empty() || file.IsCompressed()) return false;
    m_stream.reset();
    m_guard.reset();
    m_file = std::move(file);
    Layout layout = Examine();
    if (IsReady(layout)) return BeginAnew(std::move(layout));
    layout.segments.clear();
    Take(std::move(layout));
    return false;
}

bool TraceSource::BeginAnew(Layout layout) {
    const int writer = FindWriter(m_file);
    m_facts.problem.clear();
    if (writer != 0 && writer == m_facts.writer && IsReady(m_layout)) m_facts.isOvertaken = true;
    m_facts.writer = writer;
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
    Remember();
    m_segment = 0;
    StartSegment();
    return !m_layout.segments.empty();
}

bool TraceSource::IsKept() const {
    return m_file.Read(m_layout.newest - m_before.size(), m_before.size()) == m_before;
}

bool TraceSource::AdvanceRing() {
    if (m_file.Size() != m_layout.size || !IsKept()) {
        Layout anew = Examine();
        return IsReady(anew) ? BeginAnew(std::move(anew)) : Reopen();
    }
    Layout layout = m_layout;
    uint64_t found = m_file.Find(kTrailerLine, m_layout.newest - 1, m_layout.size);
    const bool isNextCycle = found == TraceFile::kNowhere;
    if (isNextCycle) {
        found = m_file.Find(kTrailerLine, m_layout.start - 1, m_layout.newest);
        if (found == TraceFile::kNowhere) return false;  // a record is being written
        layout.cycle = 1;
        layout.oldEnd = FindDots(m_file, m_layout.newest, m_layout.size);
    }
    // The writer may have come round since the first look.
    if (!TakeMark(m_file, found + 1, layout) || !IsKept()) return false;
    return GoOn(std::move(layout), isNextCycle);
}

bool TraceSource::AdvanceLog() {
    Layout layout = Examine();
    if (layout.kind != FileKind::kLogFile) {
        m_layout = {};  // it was begun anew and holds nothing yet
        return false;
    }
    const bool isKept = IsKept() && layout.cycle >= m_layout.cycle;
    if (!isKept || layout.cycle > m_layout.cycle + 1) {
        // In another cycle of the same run the start-up part has been shown.
        const bool isSameStart = m_layout.cycle == 0 || layout.start == m_layout.start;
        const bool isOvertaken = layout.cycle > m_layout.cycle && isSameStart;
        std::erase_if(layout.segments,
                      [&](const Segment& each) { return isOvertaken && each.end <= layout.start; });
        const bool isShown = BeginAnew(std::move(layout));
        if (isOvertaken) m_facts.isOvertaken = true;
        return isShown;
    }
    const bool isNextCycle = layout.cycle > m_layout.cycle;
    if (!isNextCycle && layout.newest <= m_layout.newest) return false;
    return GoOn(std::move(layout), isNextCycle);
}
