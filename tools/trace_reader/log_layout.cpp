#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "tools/trace_reader/layout.h"
#include "tools/trace_reader/record_stream.h"

namespace {

bool TakeNumber(std::string_view& text, std::string_view label, uint64_t& number) {
    const size_t found = text.find(label);
    if (found == text.npos) return false;
    text.remove_prefix(found + label.size());
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
}

std::optional<WrapLine> ParseWrap(std::string_view text) {
    WrapLine wrap;
    uint64_t cycle = 0;
    if (!TakeNumber(text, "Cycle=", cycle) || !TakeNumber(text, "CntInitEnd=", wrap.start) ||
        !TakeNumber(text, "(MaxCnt=", wrap.limit)) {
        return std::nullopt;
    }
    wrap.cycle = static_cast<uint32_t>(cycle);
    return wrap;
}

// Looks for the place behind a wrap line where the newest record ends and what is left of the cycle
// before begins. There, time goes back, and the record that was overwritten last has nearly always
// left a piece without a prefix. Either one alone also occurs elsewhere: time goes back when the
// clock is set, and a text may have several lines.
class Boundary {
  public:
    uint64_t newest = 0;
    uint64_t old = 0;

    // The records of the cycle, the wrap line first.
    void Add(const TraceRecord& record, uint64_t offset) {
        const int64_t back = m_time - record.time;
        if (back > 0) {
            Rate(m_isCut ? kPieceAndBack : kBack, back, offset);
        } else if (m_isCut) {
            Rate(kPiece, 0, offset);
        }
        Remember(record, offset);
    }
    // With nothing behind the newest record but a piece.
    void End(uint64_t offset) {
        if (m_isCut) Rate(kPieceAtEnd, 0, offset);
        if (m_rank == kNowhere) newest = old = offset;
    }

  private:
    // The likelier the higher. When the clock was set back in the newer cycle, or in the older one,
    // the older records may have later times.
    enum Rank { kNowhere, kBack, kPieceAtEnd, kPiece, kPieceAndBack };

    void Rate(Rank rank, int64_t back, uint64_t offset) {
        if (rank < m_rank || (rank == m_rank && back <= m_back)) return;
        m_rank = rank;
        m_back = back;
        newest = m_isCut ? m_piece : offset;
        old = offset;
    }
    // Of a text with several lines the last one may be such a piece; of a wrap line all others.
    void Remember(const TraceRecord& record, uint64_t offset) {
        const bool isWrap = record.kind == RecordKind::kWrap;
        const size_t feed = isWrap ? record.line.find('\n') : record.line.rfind('\n');
        m_isCut = feed != record.line.npos;
        m_piece = offset + feed + 1;
        m_time = record.time;
    }

    Rank m_rank = kNowhere;
    int64_t m_back = 0;
    int64_t m_time = INT64_MIN / 2;
    bool m_isCut = false;
    uint64_t m_piece = 0;
};

// The file is never shortened: behind the record that passed the limit, pieces of such records of
// earlier cycles may be left.
uint64_t FindOldEnd(const TraceFile& file, const WrapLine& wrap, uint64_t size) {
    if (wrap.cycle < 2) return size;
    // A limit within the start-up part makes every record pass it.
    const uint64_t wrapLine = file.Find("\n", wrap.start, size);
    if (wrapLine == TraceFile::kNowhere) return size;
    const uint64_t feed = file.Find("\n", std::max(wrap.limit, wrapLine + 1), size);
    return feed == TraceFile::kNowhere ? size : feed + 1;
}

}  // namespace

static void PutParts(const Boundary& boundary, Layout& layout) {
    const auto put = [&layout](uint64_t begin, uint64_t end) {
        if (begin < end) layout.segments.push_back({begin, end, RecordKind::kRecord, false});
    };
    layout.newest = std::min(boundary.newest, layout.oldEnd);
    layout.overwritten =
        std::min(boundary.old, layout.oldEnd) - layout.newest + (layout.size - layout.oldEnd);
    put(0, layout.start);
    put(boundary.old, layout.oldEnd);
    put(layout.start, layout.newest);
}

// The last wrap line. It stands where its cycle begins, which tells it from a copy in a text.
static WrapLine FindWrap(const TraceFile& file, uint64_t size) {
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, false});
    WrapLine last;
    for (TraceRecord record; stream.Next(record);) {
        if (record.kind != RecordKind::kWrap) continue;
        const auto wrap = ParseWrap(record.text);
        if (wrap && wrap->start == stream.Offset() && wrap->cycle > last.cycle) last = *wrap;
    }
    return last;
}

std::optional<WrapLine> ReadWrapLine(const TraceFile& file, uint64_t offset) {
    constexpr uint64_t kLongest = 512;
    RecordStream stream(file);
    stream.Start({offset, offset + kLongest, RecordKind::kRecord, false});
    TraceRecord record;
    if (!stream.Next(record) || record.kind != RecordKind::kWrap) return std::nullopt;
    const auto wrap = ParseWrap(record.text);
    return wrap && wrap->start == offset ? wrap : std::nullopt;
}

void ExamineLog(const TraceFile& file, Layout& layout) {
    layout.kind = FileKind::kLogFile;
    const WrapLine wrap = FindWrap(file, layout.size);
    layout.cycle = wrap.cycle;
    layout.start = wrap.start;
    layout.oldEnd = layout.size;
    if (wrap.cycle == 0) {
        const uint64_t feed = file.FindLast("\n", 0, layout.size);
        layout.newest = feed == TraceFile::kNowhere ? 0 : feed + 1;
        layout.segments = {{0, layout.size, RecordKind::kRecord, false}};
        return;
    }
    layout.oldEnd = FindOldEnd(file, wrap, layout.size);
    Boundary boundary;
    RecordStream stream(file);
    stream.Start({wrap.start, layout.oldEnd, RecordKind::kRecord, false});
    for (TraceRecord record; stream.Next(record);) boundary.Add(record, stream.Offset());
    boundary.End(layout.oldEnd);
    PutParts(boundary, layout);
}
