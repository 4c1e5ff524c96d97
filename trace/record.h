// The line buffer in which one trace record is built: up to 128 characters of prefix, directly
// behind it the text, and a line feed. The caller holds the trace object's lock (or owns the
// buffer).
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <string_view>

#include "kemd/api.h"
#include "trace/line_prefix.h"
#include "trace/texts.h"

class RecordBuffer {
  public:
    static constexpr size_t kPrefixLimit = trace_text::kPrefixLimit;
    static constexpr size_t kTextLimit = trace_text::kTextLimit;

    void BuildPrefix(LinePrefix& prefix, const Stamp& stamp, std::string_view tag);

    // Formats a text behind the prefix, cut to kTextLimit characters, and returns the length that
    // the whole text has; negative when it cannot be formatted. `args` is used up.
    int FormatText(const char* format, va_list args) KEMD_PRINTF(2, 0);
    int FormatText(const char* format, ...) KEMD_PRINTF(2, 3);

    // The record with the first `textLength` (at most kTextLimit) characters of the text, ended by
    // a line feed. Valid until the buffer is used again.
    std::string_view Finish(size_t textLength);
    // The same with kTextLimit characters and one of the two truncation texts behind them.
    std::string_view FinishTruncated(std::string_view why);

    [[nodiscard]] std::string_view Prefix() const { return {m_text.data(), m_prefixLength}; }

  private:
    static constexpr size_t kReasonRoom = 64;

    size_t m_prefixLength = 0;
    std::array<char, kPrefixLimit + kTextLimit + 1 + kReasonRoom> m_text{};
};

// Message formats begin with line feeds by habit, records never do: steps over them. A format of
// nothing but line feeds is used unchanged.
const char* SkipLineFeeds(const char* format);

// vsnprintf for trace texts: the same results, several times faster for what most of them are made
// of. Formatting is the largest part of the cost of a record.
//
// Writes at most `size` (at least 1) bytes, terminator included, and returns the length that the
// whole text needs, or a negative number. `args` is used up.
int FormatTraceText(char* buffer, size_t size, const char* format, va_list args) KEMD_PRINTF(3, 0);
