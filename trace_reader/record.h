// One record of a trace file, and its prefix taken apart. See docs/trace-files.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "trace/texts.h"

enum class RecordKind : uint8_t {
    kRecord,
    kHeader,       // command line, environment, settings; with the slack after it
    kBegin,        // where the cycles of a ring begin
    kWrap,         // where the cycles of a log begin
    kTrailerLine,  // after the newest record of a ring
    kFill,         // pre-fill and dots
    kFragment,     // what is left in a log of a record that was overwritten
    kOther,        // bytes before the first record: damage
};

struct TraceRecord {
    // The whole record with its prefix, without its last line feed. A text may have more lines.
    std::string_view line;
    std::string_view tag;
    std::string_view text;
    // Milliseconds of the local time that the prefix shows, counted from 1970-01-01 00:00 without
    // regard to time zones: good for comparing with others of the same host, and it goes back with
    // the clock. Where the prefix has no time, that of the record before.
    int64_t time = 0;
    int64_t residentKb = -1;  // a column of the prefix; -1: not there
    uint64_t sequence = 0;    // grows within its file in the order of writing
    uint32_t thread = 0;      // low 32 bits of the thread's id
    uint16_t source = 0;      // number of its file
    RecordKind kind = RecordKind::kRecord;
};

// The field of each column of a prefix.
inline constexpr int64_t TraceRecord::*kColumnFields[] = {&TraceRecord::residentKb};
static_assert(std::size(kColumnFields) == trace_text::kColumnCount);

inline void ClearColumns(TraceRecord& record) {
    for (const auto field : kColumnFields) record.*field = -1;
}

// A record that outlives the reader's buffer.
class KeptRecord {
  public:
    // Uses the memory of the record that was kept before.
    void Keep(const TraceRecord& record);
    // Its views are valid until the next Keep.
    [[nodiscard]] TraceRecord Get() const;

  private:
    std::string m_line;
    TraceRecord m_record;
    size_t m_tag = 0;  // offsets in the line
    size_t m_text = 0;
};

// Neighbouring records, to be copied as they are: far faster than one by one.
struct RecordBlock {
    std::string_view lines;  // without the last line feed
    uint64_t count = 0;
    int64_t firstTime = 0;
    int64_t lastTime = 0;
    uint64_t clockBack = 0;  // how often the time went back within it
};

// Keeps the last second, thread and tag that it saw: most records have them from the one before.
class PrefixParser {
  public:
    // Time and thread, which every prefix begins with: "2026-11-15 20:04:51.123 [D82A0740] ".
    static constexpr size_t kHeadLength = 35;
    struct Head {
        int64_t time = 0;
        uint32_t thread = 0;
        // 0: these bytes are not a prefix. As wide as the room after the thread, or copying a head
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
    // Columns, tag and text of a line that begins with a head.
    static void ParseRest(TraceRecord& record);

  private:
    static constexpr size_t kSecondLength = 20;  // with the point
    static constexpr size_t kThreadAt = 23;
    static constexpr size_t kThreadLength = 12;  // " [D82A0740] "

    static unsigned Digit(char c) {
        return static_cast<unsigned>(static_cast<unsigned char>(c)) - '0';
    }
    [[nodiscard]] Head ParseNewHead(const char* bytes, size_t length);
    [[nodiscard]] bool TakeSecond(const char* bytes);
    [[nodiscard]] bool TakeThread(const char* bytes);

    std::array<char, kSecondLength> m_second{'\n'};  // as no line begins
    std::array<char, kThreadLength> m_thread{'\n'};
    uint32_t m_threadNumber = 0;
    int64_t m_secondTime = 0;
    int64_t m_time = 0;
};

// Whether a line begins with a head.
[[nodiscard]] inline bool HasHead(std::string_view line) {
    return PrefixParser().ParseHead(line.data(), line.size()).isThere != 0;
}

// Milliseconds of "2026-11-15 20:04:51"; false when it is no such time.
[[nodiscard]] bool ParseSecond(const char* bytes, int64_t& time);
// The 23 characters of a prefix, "2026-11-15 20:04:51.123".
[[nodiscard]] std::array<char, 24> FormatTime(int64_t time);
