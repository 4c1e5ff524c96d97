#include "trace_reader/log_boundary.h"

#include <algorithm>

void LogBoundary::Add(const TraceRecord& record, uint64_t offset) {
    const int64_t back = m_time - record.time;
    if (back > 0) {
        Rate(m_isCut || m_hasLongTexts ? kPieceAndBack : kBack, back, offset);
    } else if (m_isCut) {
        Rate(kPiece, 0, offset);
    }
    Remember(record, offset);
}

// With nothing behind the newest record but a piece.
LogPlace LogBoundary::End(uint64_t offset) {
    if (m_isCut) Rate(kPieceAtEnd, 0, offset);
    return m_rank == kNowhere ? LogPlace{offset, offset, offset} : m_place;
}

void LogBoundary::Rate(Rank rank, int64_t back, uint64_t offset) {
    if (rank < m_rank || (rank == m_rank && back <= m_back)) return;
    if (m_hasLongTexts && rank == kPiece) return;
    m_rank = rank;
    m_back = back;
    m_place = {m_pieces, offset, m_lineEnd};
}

// The last of several lines is taken for such a piece, of a wrap line all others; where most texts
// have several lines, none: rather a piece too much than a line too few.
void LogBoundary::Remember(const TraceRecord& record, uint64_t offset) {
    const bool isWrap = record.kind == RecordKind::kWrap;
    const size_t length = record.line.size();
    const size_t first = std::min(record.line.find('\n'), length);
    const size_t last = std::min(record.line.rfind('\n'), length);
    m_isCut = first != length;
    m_lineEnd = offset + (isWrap || m_hasLongTexts ? first : last) + 1;
    m_pieces = offset + (isWrap ? first : m_areMostLong ? length : last) + 1;
    m_time = record.time;
}
