#include "performance/history_marks.h"

#include <algorithm>

namespace {

constexpr uint32_t kMarkMagic = 0x4b52414d;  // "MARK"
constexpr size_t kUnit = 8;
constexpr size_t kMostMarkText = 65535;

struct MarkHead {
    uint32_t magic = 0;
    uint32_t checksum = 0;  // of what comes after it, the text included
    uint64_t sequence = 0;
    int64_t wall = 0;
    int64_t monotonic = 0;
    int64_t value = 0;
    uint32_t boot = 0;
    uint16_t length = 0;  // of the text
    uint8_t kind = 0;
    uint8_t unused = 0;
};
static_assert(sizeof(MarkHead) == 48);

size_t SizeOf(size_t text) {
    return (sizeof(MarkHead) + text + kUnit - 1) / kUnit * kUnit;
}

uint32_t Checksum(const MarkHead& head, const void* text) {
    return Crc32c(text, head.length, HeadChecksum(head));
}

}  // namespace

std::vector<StoredMark> ParseMarks(std::span<const uint8_t> area) {
    std::vector<StoredMark> marks;
    for (size_t at = 0; at + sizeof(MarkHead) <= area.size(); at += kUnit) {
        if (std::memcmp(area.data() + at, &kMarkMagic, sizeof kMarkMagic) != 0) continue;
        MarkHead head;
        std::memcpy(&head, area.data() + at, sizeof head);
        const size_t size = SizeOf(head.length);
        const uint8_t* const text = area.data() + at + sizeof head;
        if (size > area.size() - at || head.checksum != Checksum(head, text)) continue;
        StoredMark& stored = marks.emplace_back();
        stored.sequence = head.sequence;
        stored.boot = head.boot;
        stored.offset = at;
        stored.size = size;
        stored.mark.time = {head.wall, head.monotonic};
        stored.mark.kind = static_cast<MarkKind>(head.kind);
        stored.mark.value = head.value;
        stored.mark.text.assign(reinterpret_cast<const char*>(text), head.length);
        at += size - kUnit;
    }
    std::sort(marks.begin(), marks.end(),
              [](const StoredMark& a, const StoredMark& b) { return a.sequence < b.sequence; });
    return marks;
}

HistoryMarks::HistoryMarks(std::span<uint8_t> area) : m_area(area) {
    const std::vector<StoredMark> marks = ParseMarks(area);
    if (marks.empty()) return;
    m_sequence = marks.back().sequence + 1;
    m_end = marks.back().offset + marks.back().size;
    m_boot = marks.back().boot;
}

void HistoryMarks::Append(uint32_t boot, const Mark& mark) {
    const size_t length = std::min({mark.text.size(), kMostMarkText, m_area.size() / 4});
    const size_t size = SizeOf(length);
    if (m_end + size > m_area.size()) m_end = 0;
    MarkHead head;
    head.magic = kMarkMagic;
    head.sequence = m_sequence++;
    head.wall = mark.time.wall;
    head.monotonic = mark.time.monotonic;
    head.value = mark.value;
    head.boot = boot;
    head.length = static_cast<uint16_t>(length);
    head.kind = static_cast<uint8_t>(mark.kind);
    head.checksum = Checksum(head, mark.text.data());
    uint8_t* const to = m_area.data() + m_end;
    std::copy_n(mark.text.data(), length, to + sizeof head);
    std::memcpy(to, &head, sizeof head);
    m_end += size;
}
