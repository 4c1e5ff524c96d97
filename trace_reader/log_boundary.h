// Where, in a log that has wrapped, the newest record ends.
#pragma once

#include <cstdint>

#include "trace_reader/record.h"

// Offsets behind a wrap line.
struct LogPlace {
    uint64_t newest = 0;   // the newest record ends here
    uint64_t old = 0;      // what is left of the cycle before begins here
    uint64_t certain = 0;  // as Layout::certain
};

// Finds it in the records of a cycle. There, time goes back, and the record that was overwritten
// last has nearly always left a piece without a prefix. Either one alone also occurs elsewhere:
// time goes back when the clock is set, and a text may have several lines, which look like such a
// piece.
class LogBoundary {
  public:
    // Whether some texts, or most of them, have several lines.
    LogBoundary(bool hasLongTexts, bool areMostLong)
        : m_hasLongTexts(hasLongTexts), m_areMostLong(areMostLong) {}

    // The records, the wrap line first.
    void Add(const TraceRecord& record, uint64_t offset);
    // Behind the last one.
    [[nodiscard]] LogPlace End(uint64_t offset);

  private:
    // The likelier the higher. When the clock was set back in the newer cycle, or in the older one,
    // the older records may have later times.
    enum Rank { kNowhere, kBack, kPieceAtEnd, kPiece, kPieceAndBack };

    void Rate(Rank rank, int64_t back, uint64_t offset);
    void Remember(const TraceRecord& record, uint64_t offset);

    bool m_hasLongTexts;
    bool m_areMostLong;
    Rank m_rank = kNowhere;
    LogPlace m_place;
    int64_t m_back = 0;
    // Of the record before:
    int64_t m_time = INT64_MIN / 2;
    bool m_isCut = false;
    uint64_t m_lineEnd = 0;
    uint64_t m_pieces = 0;
};
