// A text field of fixed size: what does not fit is cut, and it is always terminated.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "kemd/api.h"

template <size_t kSize>
class FixedString {
  public:
    constexpr FixedString() = default;

    void Assign(std::string_view text) { m_text[text.copy(m_text.data(), kSize - 1)] = '\0'; }
    KEMD_PRINTF(2, 3) void Format(const char* format, ...) {
        va_list args;
        va_start(args, format);
        if (std::vsnprintf(m_text.data(), kSize, format, args) < 0) m_text[0] = '\0';
        va_end(args);
    }
    void Clear() { m_text[0] = '\0'; }

    [[nodiscard]] const char* Get() const { return m_text.data(); }
    [[nodiscard]] char* Get() { return m_text.data(); }
    [[nodiscard]] bool IsEmpty() const { return m_text[0] == '\0'; }

  private:
    std::array<char, kSize> m_text{};
};
