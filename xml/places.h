// Lines and characters of a document, found as its UTF-8 goes by: where a byte is, as the number of
// its character. A carriage return, a line feed and both together are the end of a line. Characters
// beyond 2^32 have no place. Scan throws std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>

#include "xml/pool.h"

class XmlPlaces {
  public:
    explicit XmlPlaces(Pool<uint32_t>& lines) : m_lines(lines) {}

    // The next bytes.
    void Scan(const char* bytes, size_t size);
    // The next bytes that are asked for are here, and what is not forgotten yet is before them.
    void SetRoom(const char* room) { m_end = room, m_endIndex = m_scanned; }
    // From 1 on: the number of the character at a byte. Fast for bytes in ascending order, and
    // where all are ASCII.
    [[nodiscard]] uint32_t At(uint64_t index) {
        if (std::min(index, m_index) < m_wide) Move(index);
        const uint64_t character = index - m_index + m_characters + 1;
        return character <= UINT32_MAX ? static_cast<uint32_t>(character) : 0;
    }
    // To the end of what is scanned: bytes before it may be gone after this.
    void Finish() { Move(m_scanned); }

  private:
    void Move(uint64_t index);
    void AddLine(uint64_t start, bool isOfBoth);

    Pool<uint32_t>& m_lines;
    uint64_t m_scanned = 0;      // bytes
    uint64_t m_scannedWide = 0;  // of these, not the first byte of a character
    bool m_isAfterReturn = false;
    uint64_t m_wide = 0;          // all bytes from here on are ASCII
    const char* m_end = nullptr;  // where byte m_endIndex is
    uint64_t m_endIndex = 0;
    // A byte that was asked for, and its character.
    uint64_t m_index = 0;
    uint64_t m_characters = 0;
};
