#include "trace_reader/log_follower.h"

#include <algorithm>
#include <string>

#include "trace_reader/prefix.h"

namespace {

constexpr uint64_t kNowhere = TraceFile::kNowhere;
constexpr uint64_t kBlock = uint64_t{1} << 16;
constexpr uint64_t kNear = uint64_t{1} << 20;

}  // namespace

bool LogFollower::CopyRange(uint64_t begin, uint64_t end) {
    for (uint64_t at = begin; at < end; at += kBlock) {
        const std::string block = m_log.Read(at, std::min(kBlock, end - at));
        if (!m_copy.Write(at, block)) return false;
    }
    return true;
}

bool LogFollower::Begin() {
    constexpr int kTries = 20;
    m_hasFailed = false;
    // When nothing differs, no write was under way. A writer that never rests has only its newest
    // record at risk.
    for (int i = 0; i < kTries; ++i) {
        m_position = m_writer.Find(m_log);
        m_modified = m_log.Modified();
        m_size = m_log.Size();
        if (!m_copy.OpenMemory() || !CopyRange(0, m_size)) return false;
        m_log.AwaitWrite();
        const bool isSame = m_log.Size() == m_copy.Size() && FindChange(m_size) == kNowhere;
        if (isSame && m_writer.Find(m_log) == m_position) return true;
    }
    m_position = 0;
    return true;
}

// The first byte that differs from the copy.
uint64_t LogFollower::FindChange(uint64_t end) const {
    for (uint64_t at = 0; at < end; at += kBlock) {
        const std::string now = m_log.Read(at, std::min(kBlock, end - at));
        const std::string before = m_copy.Read(at, std::min(kBlock, end - at));
        if (now == before) continue;
        const auto a = std::mismatch(now.begin(), now.end(), before.begin(), before.end()).first;
        return at + static_cast<uint64_t>(a - now.begin());
    }
    return kNowhere;
}

// Behind the last byte that differs. What is new has no gap: as many bytes without a change, more
// than two records have, are behind it.
uint64_t LogFollower::FindChangedEnd(uint64_t begin, uint64_t limit) const {
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

// The end of the line that changed last; of the one before when the disk was full within it.
uint64_t LogFollower::FindLineEnd(uint64_t begin, uint64_t changedEnd) {
    m_log.AwaitWrite();
    uint64_t feed = m_log.Find("\n", changedEnd - 1, m_log.Size());
    if (feed == kNowhere) feed = m_log.FindLast("\n", begin, changedEnd);
    return feed == kNowhere ? begin : feed + 1;
}

// When nothing but the prefix changed in the last line, a record is repeated where it stood in the
// cycle before, as good as certainly: then the further lines of its text are the same, too. At the
// end of the file they are pieces of records that passed the limit.
uint64_t LogFollower::SkipLines(uint64_t end, uint64_t changedEnd, uint64_t limit) const {
    constexpr uint64_t kPrefix = PrefixParser::kHeadLength + 13;  // with the memory column
    const uint64_t feed = m_log.FindLast("\n", 0, end - 1);
    const uint64_t begin = feed == kNowhere ? 0 : feed + 1;
    if (changedEnd > begin + kPrefix || m_copy.Read(end - 1, 1) != "\n") return end;
    for (uint64_t at = end; at < limit;) {
        const std::string head = m_log.Read(at, PrefixParser::kHeadLength);
        if (PrefixParser().ParseHead(head.data(), head.size()).isThere != 0) return at;
        const uint64_t next = m_log.Find("\n", at, limit);
        if (next == kNowhere) break;
        at = next + 1;
    }
    return end;
}

// Where what changed from `begin` on, and in front of the limit, ends. It is in the copy then.
uint64_t LogFollower::TakeOver(uint64_t begin, uint64_t limit) {
    const uint64_t changedEnd = FindChangedEnd(begin, limit);
    if (changedEnd == begin) return begin;
    const uint64_t end = FindLineEnd(begin, changedEnd);
    if (end == begin) return begin;
    m_certain = end;
    const uint64_t skipped = SkipLines(end, changedEnd, std::min(limit, m_copy.Size()));
    if (!CopyRange(begin, skipped)) m_hasFailed = true;
    return skipped;
}

// The same for what goes on to where the writer is.
uint64_t LogFollower::TakeOverWritten(uint64_t begin, uint64_t limit) {
    const uint64_t end = m_writer.Find(m_log);
    const bool isWhole = end > 0 && m_log.Read(end - 1, 1) == "\n";  // the disk was not full
    if (!isWhole || end < begin || end > limit) return TakeOver(begin, limit);
    if (!CopyRange(begin, end)) m_hasFailed = true;
    return m_certain = end;
}

// The bytes in front of this tell whether the writer still is in the same cycle: those of the wrap
// line. Where cycles begin is not known before the first one that begins behind a start-up part; in
// a large log it is looked for behind its beginning only when something was written and did not
// make the file longer.
uint64_t LogFollower::ComparedEnd(const Layout& layout) {
    constexpr uint64_t kWrapLength = 256;
    if (layout.start > 0) return std::min(layout.newest, layout.start + kWrapLength);
    const int64_t modified = m_log.Modified();
    const uint64_t size = m_log.Size();
    const bool isAppended = size != m_size || modified == m_modified;
    m_size = size;
    m_modified = modified;
    return isAppended ? std::min(layout.newest, kNear) : layout.newest;
}

// Where the next record begins.
uint64_t LogFollower::Resume(uint64_t newest) const {
    if (m_certain >= newest) return newest;
    const uint64_t length = newest - m_certain;
    return m_log.Read(m_certain, length) == m_copy.Read(m_certain, length) ? newest : m_certain;
}

// A cycle that began within what is new went on over a part of it.
bool LogFollower::HasWrapLine(uint64_t begin, uint64_t end) const {
    constexpr std::string_view kText = "------ WRAP ----- Cycle=";
    for (uint64_t at = begin; (at = m_copy.Find(kText, at, end)) != kNowhere; at += kText.size()) {
        const uint64_t feed = m_copy.FindLast("\n", 0, at);
        if (ReadWrapLine(m_copy, feed == kNowhere ? 0 : feed + 1)) return true;
    }
    return false;
}

LogFollower::News LogFollower::GoOn(Layout& layout) {
    const uint64_t begin = Resume(layout.newest);
    const uint64_t end = TakeOverWritten(begin, kNowhere);
    if (end == begin) return News::kNone;
    if (layout.start == 0 && HasWrapLine(begin, end)) return News::kOvertaken;
    layout.newest = end;
    layout.segments = {{begin, end, RecordKind::kRecord, false}};
    return News::kMore;
}

// The rest of the old cycle goes first: as long as the new one ends in front of it, it is whole.
LogFollower::News LogFollower::BeginCycle(const WrapLine& wrap, Layout& layout) {
    const uint64_t begin = Resume(layout.newest);
    const uint64_t oldEnd = TakeOver(begin, kNowhere);
    const uint64_t newest = TakeOverWritten(wrap.start, begin);
    const auto taken = ReadWrapLine(m_copy, wrap.start);
    if (newest > begin || !taken || taken->cycle != wrap.cycle) return News::kOvertaken;
    layout.cycle = wrap.cycle;
    layout.start = wrap.start;
    layout.newest = newest;
    layout.oldEnd = oldEnd;
    layout.segments.clear();
    if (begin < oldEnd) layout.segments.push_back({begin, oldEnd, RecordKind::kRecord, false});
    layout.segments.push_back({wrap.start, newest, RecordKind::kRecord, false});
    return News::kMore;
}

LogFollower::News LogFollower::Look(Layout& layout) {
    if (m_log.Size() < m_copy.Size()) return News::kAnew;
    const uint64_t change = FindChange(ComparedEnd(layout));
    News news = News::kAnew;
    if (change == kNowhere) {
        news = GoOn(layout);
    } else if (change >= layout.start) {
        const uint64_t feed = m_copy.FindLast("\n", 0, change);
        m_log.AwaitWrite();
        const auto wrap = ReadWrapLine(m_log, feed == kNowhere ? 0 : feed + 1);
        const int64_t cycles = wrap ? int64_t{wrap->cycle} - layout.cycle : 0;
        if (cycles == 1) news = BeginCycle(*wrap, layout);
        if (cycles > 1) news = News::kOvertaken;
    }
    return m_hasFailed ? News::kFailed : news;
}
