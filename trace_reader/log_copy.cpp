#include "trace_reader/log_copy.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

namespace {

constexpr uint64_t kBlock = uint64_t{1} << 16;
// So often it is looked whether a write was under way. A writer that never rests has only its
// newest record at risk.
constexpr int kTries = 20;

}  // namespace

bool LogCopy::CopyRange(uint64_t begin, uint64_t end) {
    for (uint64_t at = begin; at < end; at += kBlock) {
        if (!m_copy.Write(at, m_log.Read(at, std::min(kBlock, end - at)))) return false;
    }
    return true;
}

bool LogCopy::Take() {
    m_hasFailed = false;
    // When nothing differs, no write was under way.
    for (int i = 0; i < kTries; ++i) {
        const uint64_t size = m_log.Size();
        if (!m_copy.OpenMemory() || !CopyRange(0, size)) return false;
        m_log.AwaitWrite();
        if (m_log.Size() == m_copy.Size() && FindChange(0, size) == TraceFile::npos) break;
    }
    return true;
}

// The first byte that differs from the copy.
uint64_t LogCopy::FindChange(uint64_t begin, uint64_t end) const {
    for (uint64_t at = begin; at < end; at += kBlock) {
        const std::string now = m_log.Read(at, std::min(kBlock, end - at));
        const std::string before = m_copy.Read(at, std::min(kBlock, end - at));
        if (now == before) continue;
        const auto a = std::mismatch(now.begin(), now.end(), before.begin(), before.end()).first;
        return at + static_cast<uint64_t>(a - now.begin());
    }
    return TraceFile::npos;
}

// After the last byte that differs. What is new has no gap: as many bytes without a change, more
// than two records have, come after it.
uint64_t LogCopy::FindChangedEnd(uint64_t begin, uint64_t limit) const {
    constexpr uint64_t kLength = 4096;
    uint64_t end = begin;
    for (uint64_t at = begin; at < limit; at += kLength) {
        const std::string now = m_log.Read(at, std::min(kLength, limit - at));
        const std::string before = m_copy.Read(at, now.size());
        if (now == before) return end;
        const auto same =
            now.size() > before.size()
                ? now.rbegin()
                : std::mismatch(now.rbegin(), now.rend(), before.rbegin(), before.rend()).first;
        end = at + static_cast<uint64_t>(now.rend() - same);
    }
    return end;
}

// A record that stands exactly where one stood in the cycle before, and differs from it in its
// prefix and in numbers only, is as good as certainly one of the same kind: then the further lines
// of its text are the same. At the end of the file they are left of records that passed the limit.
uint64_t LogCopy::SkipLines(uint64_t end, uint64_t limit) const {
    const uint64_t begin = m_log.FindLineStart(end - 1);
    const std::string now = m_log.Read(begin, end - begin),
                      before = m_copy.Read(begin, end - begin);
    constexpr std::ptrdiff_t kHead = PrefixParser::kHeadLength;
    const auto isAlike = [](char a, char b) {
        return a == b || (a >= '0' && a <= '9' && b >= '0' && b <= '9');
    };
    const bool isRepeated =
        HasHead(now) && HasHead(before) && now.size() == before.size() &&
        std::equal(now.begin() + kHead, now.end(), before.begin() + kHead, isAlike);
    for (uint64_t at = end; isRepeated && at < limit; at = m_log.FindLineEnd(at, limit)) {
        if (HasHead(m_log.Read(at, PrefixParser::kHeadLength))) return at;
    }
    return end;
}

// Where what changed from `begin` on, and before the limit, ends: with a line, the one before when
// the disk was full within the last. It is in the copy then.
uint64_t LogCopy::TakeOver(uint64_t begin, uint64_t limit) {
    uint64_t changedEnd = FindChangedEnd(begin, limit);
    if (changedEnd == begin) return begin;
    // A write that was seen in part may have further lines of its text in the next page.
    for (int i = 0; i < kTries; ++i) {
        m_log.AwaitWrite();
        const uint64_t before = std::exchange(changedEnd, FindChangedEnd(changedEnd, limit));
        if (changedEnd == before) break;
    }
    uint64_t end = m_log.FindLineEnd(changedEnd - 1, m_log.Size());
    if (m_log.Read(end - 1, 1) != "\n") end = std::max(m_log.FindLineStart(changedEnd), begin);
    if (end == begin) return begin;
    m_certain = end;
    const uint64_t skipped = SkipLines(end, std::min(limit, m_copy.Size()));
    if (!CopyRange(begin, skipped)) m_hasFailed = true;
    return skipped;
}

// The bytes before this tell whether the writer still is in the same cycle: those of the wrap line.
// Where cycles begin is not known before the first one that begins after a start-up part. A large
// log is compared as a whole only when it has not grown: it does with each record until it wraps.
uint64_t LogCopy::ComparedEnd(const Layout& layout) const {
    constexpr uint64_t kWrapLength = 256, kLarge = uint64_t{1} << 20;
    if (layout.start > 0) return std::min(layout.newest, layout.start + kWrapLength);
    return m_log.Size() > m_copy.Size() ? std::min(layout.newest, kLarge) : layout.newest;
}

// Where the next record begins.
uint64_t LogCopy::Resume(uint64_t newest) const {
    return FindChange(std::min(m_certain, newest), newest) == TraceFile::npos ? newest : m_certain;
}

LogCopy::News LogCopy::GoOn(Layout& layout) {
    const uint64_t begin = Resume(layout.newest);
    const uint64_t end = TakeOver(begin, TraceFile::npos);
    if (end == begin) return News::kNone;
    // A cycle that began within what is new went on over a part of it.
    for (uint64_t at = begin; layout.start == 0; at += trace_text::kWrap.size()) {
        at = m_copy.Find(trace_text::kWrap, at, end);
        if (at == TraceFile::npos) break;
        if (ReadWrapLine(m_copy, m_copy.FindLineStart(at))) return News::kOvertaken;
    }
    layout.newest = end;
    layout.segments = {{begin, end, RecordKind::kRecord, false}};
    return News::kMore;
}

// The rest of the old cycle goes first: as long as the new one ends before it, it is whole.
LogCopy::News LogCopy::BeginCycle(const WrapLine& wrap, Layout& layout) {
    const uint64_t begin = Resume(layout.newest);
    const uint64_t oldEnd = TakeOver(begin, TraceFile::npos);
    const uint64_t newest = TakeOver(wrap.start, begin);
    const auto taken = ReadWrapLine(m_copy, wrap.start);
    if (newest > begin || !taken || taken->cycle != wrap.cycle) return News::kOvertaken;
    layout.cycle = wrap.cycle;
    layout.start = wrap.start;
    layout.newest = newest;
    layout.segments.clear();
    if (begin < oldEnd) layout.segments.push_back({begin, oldEnd, RecordKind::kRecord, false});
    layout.segments.push_back({wrap.start, newest, RecordKind::kRecord, false});
    return News::kMore;
}

LogCopy::News LogCopy::Look(Layout& layout) {
    if (m_log.Size() < m_copy.Size()) return News::kRestarted;
    const uint64_t end = layout.isCertain ? ComparedEnd(layout) : m_copy.Size();
    const uint64_t change = FindChange(0, end);
    News news = News::kRestarted;
    if (change == TraceFile::npos) {
        news = GoOn(layout);
    } else if (change >= layout.start) {
        m_log.AwaitWrite();
        const uint64_t line = m_log.FindLineStart(change);
        const auto wrap = ReadWrapLine(m_log, line);
        const int64_t cycles = wrap ? int64_t{wrap->cycle} - layout.cycle : 0;
        if (wrap && !layout.isCertain) layout.newest = m_certain = m_copy.Size();
        if (cycles == 1) news = BeginCycle(*wrap, layout);
        if (cycles > 1) news = News::kOvertaken;
        if (!wrap && !layout.isCertain) {
            // Only now it is seen where the writer was.
            layout.newest = m_certain = line;
            layout.isCertain = true;
            news = GoOn(layout);
        }
    }
    return m_hasFailed ? News::kFailed : news;
}
