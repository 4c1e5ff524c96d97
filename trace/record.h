// The line buffer in which one trace record is built: up to 128 characters of prefix, followed
// directly by the text and a line feed. The caller holds the trace object's lock (or owns the
// buffer).
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <memory>
#include <string_view>

#include "kemd/api.h"
#include "trace/line_prefix.h"
#include "trace/texts.h"

class RecordBuffer {
  public:
    static constexpr size_t kPrefixLimit = trace_text::kPrefixLimit;
    static constexpr size_t kTextLimit = trace_text::kTextLimit;

    void BuildPrefix(LinePrefix& prefix, const Stamp& stamp, std::string_view tag);

    // The record of a text cut to kTextLimit characters; empty when it cannot be formatted. `args`
    // is used up. What is built is valid until the buffer is used again.
    std::string_view BuildCut(const char* format, va_list args) KEMD_PRINTF(2, 0);
    std::string_view BuildCut(const char* format, ...) KEMD_PRINTF(2, 3);
    // The record of the whole text, which `longRecord` holds when the buffer has no room for it. A
    // text of more than `longest` characters is cut to kTextLimit and says so. One that cannot be
    // formatted is empty. `args` stays usable.
    std::string_view BuildWhole(const char* format, va_list args, size_t longest,
                                std::unique_ptr<char[]>& longRecord) KEMD_PRINTF(2, 0);

  private:
    static constexpr size_t kReasonRoom = 64;

    // How many characters the whole text has; negative when it cannot be formatted.
    int FormatText(const char* format, va_list args) KEMD_PRINTF(2, 0);
    std::string_view BuildLong(const char* format, va_list args, size_t length,
                               std::unique_ptr<char[]>& longRecord) KEMD_PRINTF(2, 0);
    std::string_view Finish(size_t textLength);
    std::string_view FinishTruncated(std::string_view why);

    size_t m_prefixLength = 0;
    std::array<char, kPrefixLimit + kTextLimit + 1 + kReasonRoom> m_text{};
};

// vsnprintf for trace texts: the same results, several times faster for what most of them are made
// of. Formatting is the largest part of the cost of a record.
//
// Writes at most `size` (at least 1) bytes, terminator included, and returns the length that the
// whole text needs, or a negative number. `args` is used up.
int FormatTraceText(char* buffer, size_t size, const char* format, va_list args) KEMD_PRINTF(3, 0);

// Message formats begin with line feeds by habit, records never do: steps over them. A format of
// nothing but line feeds is used unchanged.
const char* SkipLineFeeds(const char* format);
