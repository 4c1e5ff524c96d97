// The line of a crash while it is put together, in the signal handler.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

// With its line feed. Leaves room in a write of PIPE_BUF bytes for a head.
inline constexpr size_t kMostCrashLine = 3584;

// JSON that is put together without memory. What does not fit is left out as a whole.
class CrashLine {
  public:
    void Clear() { m_size = m_kept = 0; }
    void Put(std::string_view text) {
        if (text.size() > kRoom - std::min(m_size, kRoom)) {
            m_size = kRoom + 1;
        } else {
            std::memcpy(m_text.data() + m_size, text.data(), text.size());
            m_size += text.size();
        }
    }
    void PutNumber(uint64_t number, unsigned base = 10, size_t digits = 1) {
        std::array<char, 24> text{};
        size_t at = text.size();
        for (; number != 0 || text.size() - at < digits; number /= base) {
            text[--at] = "0123456789abcdef"[number % base];
        }
        Put({text.data() + at, text.size() - at});
    }
    // Each byte becomes a character, so that those that are no UTF-8 come through as well.
    void PutEscaped(std::string_view text) {
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            const bool isPlain = byte >= ' ' && byte < 0x7f && c != '"' && c != '\\';
            if (!isPlain) Put("\\u");
            isPlain ? Put({&c, 1}) : PutNumber(byte, 16, 4);
        }
    }
    // What was put until now stays, if it fits.
    bool Keep() {
        const bool fits = m_size <= kRoom;
        if (fits) m_kept = m_size;
        Drop();
        return fits;
    }
    void Drop() { m_size = m_kept; }
    std::string_view End() {
        constexpr std::string_view kEnd = "]}\n";
        std::memcpy(m_text.data() + m_kept, kEnd.data(), kEnd.size());
        return {m_text.data(), m_kept + kEnd.size()};
    }

  private:
    static constexpr size_t kRoom = kMostCrashLine - 3;
    std::array<char, kMostCrashLine> m_text{};
    size_t m_size = 0;
    size_t m_kept = 0;
};
