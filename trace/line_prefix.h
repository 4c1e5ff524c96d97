// The prefix of every trace record, built from a stamp and a tag. Its forms: trace/texts.h.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "trace/texts.h"

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): a record sets what it needs
struct Stamp {
    timeval time;
    uint32_t thread;  // low 32 bits of pthread_self()
    std::array<std::optional<uint64_t>, trace_text::kColumnCount> columns;
};

// The caller holds the trace object's lock: the formatted second and thread are kept between calls,
// because formatting the time again costs more than the rest of a record.
class LinePrefix {
  public:
    // Writes at most size - 1 characters and a terminator. Returns the length that the whole prefix
    // needs, like snprintf.
    int Build(char* buffer, size_t size, const Stamp& stamp, std::string_view tag);

  private:
    void FormatSecond(time_t second);
    void FormatThread(uint32_t thread);
    // Everything before the tag, into a buffer that is large enough. Returns its length.
    size_t BuildHead(char* buffer, const Stamp& stamp);

    time_t m_second = 0;
    size_t m_length = 0;  // 0: nothing formatted yet, or this second cannot be formatted
    std::array<char, 22> m_text{};
    uint32_t m_thread = 0;
    std::array<char, 12> m_threadText{};  // " [F7C3A740] "; empty: nothing formatted yet
};
