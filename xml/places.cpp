#include "xml/places.h"

namespace {

constexpr uint64_t kHighest = 0x8080808080808080U;

const char* FindByte(char byte, const char* from, const char* end) {
    const void* const found = std::memchr(from, byte, static_cast<size_t>(end - from));
    return found == nullptr ? end : static_cast<const char*>(found);
}

// Bytes that are not the first ones of characters: 10xxxxxx.
uint64_t CountWide(const char* from, const char* end) {
    uint64_t count = 0;
    for (uint64_t word = 0; end - from >= static_cast<long>(sizeof word); from += sizeof word) {
        std::memcpy(&word, from, sizeof word);
        count += static_cast<uint64_t>(__builtin_popcountll(word & ~(word << 1) & kHighest));
    }
    for (; from < end; ++from) count += (*from & 0xC0) == 0x80 ? 1 : 0;
    return count;
}

bool IsAscii(const char* from, const char* end) {
    uint64_t all = 0;
    for (uint64_t word = 0; end - from >= static_cast<long>(sizeof word); from += sizeof word) {
        std::memcpy(&word, from, sizeof word);
        all |= word;
    }
    for (; from < end; ++from) all |= static_cast<unsigned char>(*from);
    return (all & kHighest) == 0;
}

}  // namespace

// `isOfBoth`: a line feed after the return that ended the line.
void XmlPlaces::AddLine(uint64_t start, bool isOfBoth) {
    if (start > UINT32_MAX) return;
    if (isOfBoth) {
        m_lines[m_lines.Size() - 1] = static_cast<uint32_t>(start);
    } else {
        m_lines.Add(static_cast<uint32_t>(start));
    }
}

void XmlPlaces::Scan(const char* bytes, size_t size) {
    if (size == 0) return;
    const char* const end = bytes + size;
    const bool isAscii = IsAscii(bytes, end);
    const char* feed = FindByte('\n', bytes, end);
    const char* back = FindByte('\r', bytes, end);
    const char* from = bytes;
    while (feed < end || back < end) {
        const char* const at = std::min(feed, back);
        if (!isAscii) m_scannedWide += CountWide(from, at);
        from = at;
        const bool isAfterReturn = at == bytes ? m_isAfterReturn : at[-1] == '\r';
        const uint64_t index = m_scanned + static_cast<uint64_t>(at - bytes);
        AddLine(index - m_scannedWide + 2, at == feed && isAfterReturn);
        if (at == feed) feed = FindByte('\n', at + 1, end);
        if (at == back) back = FindByte('\r', at + 1, end);
    }
    if (!isAscii) m_scannedWide += CountWide(from, end);
    m_isAfterReturn = end[-1] == '\r';
    m_scanned += size;
    if (!isAscii) m_wide = m_scanned;
}

void XmlPlaces::Move(uint64_t index) {
    const uint64_t from = std::min(index, m_index), to = std::max(index, m_index);
    uint64_t characters = to - from;
    if (from < m_wide) {
        const char* const begin = m_end + static_cast<int64_t>(from - m_endIndex);
        characters -= CountWide(begin, begin + (to - from));
    }
    m_characters += index > m_index ? characters : -characters;
    m_index = index;
}
