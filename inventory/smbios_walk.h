// A walk over the structures of an SMBIOS table. It reads nothing outside the table and traces
// nothing. Layout: DMTF DSP0134, "Structure standards": a header of type, length and handle, the
// formatted area (the length includes the header), strings that each end with a NUL, one more NUL.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "inventory/table_field.h"

struct SmbiosStructure {
    uint8_t type = 0;
    uint8_t length = 0;
    uint16_t handle = 0;
    size_t offset = 0;                   // in the table
    std::span<const uint8_t> formatted;  // as far as the table goes
};

class SmbiosWalk {
  public:
    static constexpr size_t kHeaderSize = 4;
    static constexpr uint8_t kEndOfTable = 127;

    explicit SmbiosWalk(std::span<const uint8_t> table) : m_table(table) {}

    [[nodiscard]] bool IsAtEnd() const { return m_position == m_table.size(); }
    [[nodiscard]] size_t Position() const { return m_position; }

    // The three steps over one structure, in this order. Each is false when the table ends first.
    [[nodiscard]] bool ReadHeader(SmbiosStructure& structure) const {
        const auto rest = m_table.subspan(m_position);
        if (rest.size() < kHeaderSize || rest[1] < kHeaderSize) return false;
        const size_t available = rest[1] < rest.size() ? rest[1] : rest.size();
        structure = {rest[0], rest[1], ReadWord(rest, 2), m_position, rest.first(available)};
        return true;
    }
    [[nodiscard]] bool SkipFormatted(const SmbiosStructure& structure) {
        if (structure.formatted.size() < structure.length) return false;
        m_position += structure.length;
        return true;
    }
    // Calls `visit` with each string.
    template <typename Visit>
    [[nodiscard]] bool SkipStrings(Visit visit) {
        const auto* const end = m_table.data() + m_table.size();
        const auto* next = m_table.data() + m_position;
        do {
            const size_t rest = static_cast<size_t>(end - next);
            const void* const nul = rest == 0 ? nullptr : std::memchr(next, 0, rest);
            if (nul == nullptr) return false;
            const auto* const stop = static_cast<const uint8_t*>(nul);
            if (stop != next) {
                visit(std::string_view(reinterpret_cast<const char*>(next),
                                       static_cast<size_t>(stop - next)));
            }
            next = stop + 1;
            if (next == end) return false;
        } while (*next != 0);
        m_position = static_cast<size_t>(next + 1 - m_table.data());
        return true;
    }

  private:
    std::span<const uint8_t> m_table;
    size_t m_position = 0;
};
