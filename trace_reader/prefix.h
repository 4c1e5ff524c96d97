// Takes the prefix of a record apart; docs/trace-files.md shows its two forms.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "trace_reader/record.h"

// Keeps the last second, thread and tag that it saw: most records have them from the one before.
class PrefixParser {
  public:
    // Time and thread, which every prefix begins with: "2026-11-15 20:04:51.123 [D82A0740] ".
    static constexpr size_t kHeadLength = 35;
    struct Head {
        int64_t time = 0;
        uint32_t thread = 0;
        // 0: these bytes are no prefix. As wide as the room behind the thread, or copying a head
        // takes longer than finding it.
        uint32_t isThere = 0;
    };

    // The head at `bytes`. One whose time could not be formatted has that of the head before.
    [[nodiscard]] Head ParseHead(const char* bytes, size_t length) {
        const bool isKnown = length >= kHeadLength &&
                             std::memcmp(bytes, m_second.data(), kSecondLength) == 0 &&
                             std::memcmp(bytes + kThreadAt, m_thread.data(), kThreadLength) == 0;
        if (!isKnown) return ParseNewHead(bytes, length);
        const unsigned hundreds = Digit(bytes[20]), tens = Digit(bytes[21]),
                       ones = Digit(bytes[22]);
        if (hundreds > 9 || tens > 9 || ones > 9) return {};
        m_time = m_secondTime + int64_t{hundreds * 100 + tens * 10 + ones};
        return {m_time, m_threadNumber, 1};
    }

    // Memory, tag and text of a line that begins with a head.
    void ParseRest(TraceRecord& record);

  private:
    static constexpr size_t kSecondLength = 20;  // with the point behind it
    static constexpr size_t kThreadAt = 23;
    static constexpr size_t kThreadLength = 12;  // " [D82A0740] "
    static constexpr size_t kTagWidth = 13;

    static unsigned Digit(char c) {
        return static_cast<unsigned>(static_cast<unsigned char>(c)) - '0';
    }
    [[nodiscard]] Head ParseNewHead(const char* bytes, size_t length);
    [[nodiscard]] bool TakeSecond(const char* bytes);
    [[nodiscard]] bool TakeThread(const char* bytes);
    [[nodiscard]] size_t TagLength(std::string_view rest);

    std::array<char, kSecondLength> m_second{'\n'};  // as no line begins
    std::array<char, kThreadLength> m_thread{'\n'};
    std::array<char, kTagWidth + 1> m_tag{};  // with the blank behind it
    size_t m_tagLength = 0;                   // without the blanks
    uint32_t m_threadNumber = 0;
    int64_t m_secondTime = 0;
    int64_t m_time = 0;
};

// Milliseconds of "2026-11-15 20:04:51"; false when it is no such time.
bool ParseSecond(const char* bytes, int64_t& time);
// The 23 characters of a prefix, "2026-11-15 20:04:51.123".
std::array<char, 24> FormatTime(int64_t time);
