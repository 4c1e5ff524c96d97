// One record of a trace file, as views into the reader's buffer.
#pragma once

#include <cstdint>
#include <string_view>

enum class RecordKind : uint8_t {
    kRecord,
    kHeader,   // of the file: command line, environment, settings; with the slack behind it
    kBegin,    // where the cycles of a ring begin
    kWrap,     // where the cycles of a log begin
    kEndMark,  // behind the newest record of a ring
    kFill,     // pre-fill and dots
    kPiece,    // left in a log of a record that was overwritten
    kOther,    // bytes in front of the first record: damage
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
    int64_t residentKb = -1;  // -1: no memory column
    uint64_t sequence = 0;    // grows within its file in the order of writing
    uint32_t thread = 0;      // low 32 bits of the thread's id
    uint16_t source = 0;      // number of its file
    RecordKind kind = RecordKind::kRecord;
};

// Which times those that are given at once may have: in order, before `end`, and none that is in
// `apart`, 65,536 bits of which the low sixteen bits of a time tell its own.
struct RunLimit {
    int64_t begin = INT64_MIN;  // moves along with them
    int64_t end = INT64_MAX;
    const uint64_t* apart = nullptr;  // 1024 words

    [[nodiscard]] bool Allows(int64_t time) const {
        const bool isApart =
            apart != nullptr && (apart[(time & 0xFFFF) >> 6] >> (time & 63) & 1) != 0;
        return time >= begin && time < end && !isApart;
    }
};

// Records that stand behind each other, for those who only copy them: far faster than one by one.
struct TraceRun {
    std::string_view lines;  // without the last line feed
    uint64_t count = 0;
    int64_t firstTime = 0;
    int64_t lastTime = 0;
    uint64_t clockBack = 0;  // how often the time went back within it
};
