#include "trace_reader/ring_guard.h"

#include <algorithm>

#include "trace_reader/trailer.h"

namespace {

// A copy may store the end of a record before its beginning, and so before the trailer is gone.
constexpr uint64_t kInFlight = 8192;

}  // namespace

RingGuard::RingGuard(const TraceFile& file, const Layout& layout)
    : m_file(file),
      m_start(layout.start),
      m_newest(layout.newest),
      m_size(layout.size),
      m_mark(layout.mark),
      m_oldValid(layout.newest),
      m_newValid(layout.start) {}

bool RingGuard::IsUntouched() const {
    const std::string now = m_file.Read(m_newest - m_mark.size(), m_mark.size() + kTrailerLength);
    return now.starts_with(m_mark) && now.ends_with(kTrailerLine.substr(1));
}

// The writer is at the trailer. In front of it stands what is newer than the layout; behind it what
// the writer has not come to: everything, or one cycle less, or nothing that was known.
void RingGuard::Look() {
    Trailer found = FindTrailer(m_file, m_start, m_size);
    for (const Patience patience; m_mayWait && !found.isLikely;) {
        m_mayWait = patience.Wait();
        found = FindTrailer(m_file, m_start, m_size);
    }
    const uint64_t trailer = found.offset;
    const bool isKept = m_file.Read(m_newest - m_mark.size(), m_mark.size()) == m_mark;
    if (trailer == TraceFile::kNowhere || !isKept) {
        m_oldValid = m_newValid = m_size;
    } else if (trailer >= m_newest) {
        m_oldValid = trailer + kTrailerLength + kInFlight;
    } else {
        m_oldValid = m_size;
        m_newValid = trailer + kTrailerLength + kInFlight;
    }
}

uint64_t RingGuard::ValidFrom(const Segment& segment) {
    if (segment.kind != RecordKind::kRecord) return segment.begin;
    if (!IsUntouched()) Look();
    const uint64_t valid = segment.begin >= m_newest ? m_oldValid : m_newValid;
    return std::clamp(valid, segment.begin, segment.end);
}
