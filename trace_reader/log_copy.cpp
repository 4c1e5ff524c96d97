#include "trace_reader/log_copy.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace {

uint64_t LineStart(const std::string& text, uint64_t place) {
    return place == 0 ? 0 : text.rfind('\n', place - 1) + 1;
}

// After the next line feed; npos: there is none.
uint64_t LineEnd(const std::string& text, uint64_t place) {
    const size_t feed = text.find('\n', place);
    return feed == text.npos ? text.npos : feed + 1;
}

constexpr size_t kCompared = 4096;

// The first of so many bytes, which both texts have, that differs; `length` when none does.
size_t FindDifference(const std::string& a, const std::string& b, size_t length) {
    size_t at = 0;
    while (at + kCompared <= length && std::memcmp(&a[at], &b[at], kCompared) == 0) at += kCompared;
    while (at < length && a[at] == b[at]) ++at;
    return at;
}

}  // namespace

LogCopy::LogCopy(const TraceFile& log) : m_log(log) {
    if (!m_copy.OpenMemory()) throw std::bad_alloc();
    m_now = Snapshot();
    Put(0, m_now.size());
}

// When two reads see the same, no write was under way. If the writer never pauses, only its
// newest record may be torn.
std::string LogCopy::Snapshot() const {
    constexpr int kTries = 20;
    std::string text = m_log.Read(0, m_log.Size());
    for (int i = 0; i < kTries; ++i) {
        m_log.AwaitWrite();
        std::string again = m_log.Read(0, m_log.Size());
        if (again == text) break;
        text = std::move(again);
    }
    return text;
}

void LogCopy::Put(uint64_t begin, uint64_t end) {
    const std::string_view text = std::string_view(m_now).substr(begin, end - begin);
    if (!m_copy.Write(begin, text)) throw std::bad_alloc();
}

// A record that stands exactly where one stood in the cycle before, and differs from it in its
// prefix and in numbers only, is as good as certainly one of the same kind: then the further lines
// of its text are the same. At the end of the file they are left of records that passed the limit.
uint64_t LogCopy::SkipLines(uint64_t end, uint64_t limit) const {
    constexpr size_t kHead = PrefixParser::kHeadLength;
    const auto isAlike = [](char a, char b) {
        return a == b || (a >= '0' && a <= '9' && b >= '0' && b <= '9');
    };
    const uint64_t begin = LineStart(m_now, end - 1);
    if (end > m_before.size() || end - begin < kHead) return end;
    const std::string_view now = std::string_view(m_now).substr(begin, end - begin),
                           before = std::string_view(m_before).substr(begin, end - begin);
    const bool isRepeated =
        HasHead(now) && HasHead(before) &&
        std::equal(now.begin() + kHead, now.end(), before.begin() + kHead, isAlike);
    for (uint64_t at = end; isRepeated && at < limit; at = LineEnd(m_now, at)) {
        if (HasHead(std::string_view(m_now).substr(at, kHead))) return at;
    }
    return end;
}

// Where what changed from `begin` on, and before the limit, ends: with a line, the one before when
// the disk was full within the last. It is in the copy then.
uint64_t LogCopy::TakeOver(uint64_t begin, uint64_t limit) {
    uint64_t changed = std::min(limit, m_now.size());
    while (changed >= begin + kCompared && changed <= m_before.size() &&
           std::memcmp(&m_now[changed - kCompared], &m_before[changed - kCompared], kCompared) == 0)
        changed -= kCompared;
    while (changed > begin && changed <= m_before.size() &&
           m_now[changed - 1] == m_before[changed - 1])
        --changed;
    if (changed <= begin) return begin;
    uint64_t end = LineEnd(m_now, changed - 1);
    if (end == m_now.npos) end = std::max(LineStart(m_now, changed), begin);
    if (end == begin) return begin;
    m_certain = end;
    const uint64_t skipped = SkipLines(end, std::min(limit, m_before.size()));
    Put(begin, skipped);
    return skipped;
}

// Where the next record begins.
uint64_t LogCopy::Resume(uint64_t newest) const {
    const uint64_t certain = std::min(m_certain, newest);
    const bool isSame =
        m_now.compare(certain, newest - certain, m_before, certain, newest - certain) == 0;
    return isSame ? newest : m_certain;
}

LogCopy::News LogCopy::GoOn(Layout& layout) {
    const uint64_t begin = Resume(layout.newest);
    const uint64_t end = TakeOver(begin, m_now.size());
    if (end == begin) return News::kNone;
    // A cycle that began within what is new went on over a part of it.
    for (uint64_t at = begin; layout.start == 0; ++at) {
        at = m_now.find(trace_text::kWrap, at);
        if (at >= end) break;
        if (ReadWrapLine(m_copy, LineStart(m_now, at))) return News::kOvertaken;
    }
    layout.newest = end;
    layout.segments = {{begin, end, RecordKind::kRecord, false}};
    return News::kMore;
}

// The rest of the old cycle goes first: as long as the new one ends before it, it is whole.
LogCopy::News LogCopy::BeginCycle(const WrapLine& wrap, Layout& layout) {
    const uint64_t begin = Resume(layout.newest);
    const uint64_t oldEnd = TakeOver(begin, m_now.size());
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

// The bytes before this say whether the writer still is in the same cycle: those of the wrap line.
// Where cycles begin is not known before the first one that begins after a start-up part.
static uint64_t ComparedEnd(const Layout& layout) {
    constexpr uint64_t kWrapLength = 256;
    return layout.start > 0 ? std::min(layout.newest, layout.start + kWrapLength) : layout.newest;
}

LogCopy::News LogCopy::Look(Layout& layout) {
    m_now = Snapshot();
    m_before = m_copy.Read(0, m_copy.Size());
    if (m_now.size() < m_before.size()) return News::kRestarted;
    const uint64_t compared =
        layout.isCertain ? std::min(ComparedEnd(layout), m_before.size()) : m_before.size();
    const uint64_t change = FindDifference(m_before, m_now, compared);
    if (change == compared) return GoOn(layout);
    if (change < layout.start) return News::kRestarted;
    const uint64_t line = LineStart(m_now, change);
    const auto wrap = ReadWrapLine(m_log, line);
    if (!layout.isCertain && !wrap) {
        // Only now it is seen where the writer was.
        layout.newest = m_certain = line;
        layout.isCertain = true;
        return GoOn(layout);
    }
    if (!layout.isCertain) layout.newest = m_certain = m_before.size();
    const int64_t cycles = wrap ? int64_t{wrap->cycle} - layout.cycle : 0;
    if (cycles == 1) return BeginCycle(*wrap, layout);
    return cycles > 1 ? News::kOvertaken : News::kRestarted;
}
