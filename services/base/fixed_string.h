// A text field of fixed size: what does not fit is cut, and it is always terminated.
#pragma once

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "kemd/api.h"

template <size_t kSize>
class FixedString {
  public:
    constexpr FixedString() = default;

    void Assign(std::string_view text) {
        const size_t length = std::min(text.size(), kSize - 1);
        std::memcpy(m_text.data(), text.data(), length);
        m_text[length] = '\0';
    }
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
