// Where the records of a trace file are, in the order in which they were written. See
// docs/trace-files.md for the two layouts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/trace_reader/record.h"
#include "tools/trace_reader/trace_file.h"

enum class FileKind : uint8_t { kEmptyFile, kForeignFile, kLogFile, kRingFile };

// A part of a file, [begin, end).
struct Segment {
    uint64_t begin = 0;
    uint64_t end = 0;
    RecordKind kind = RecordKind::kRecord;
    bool isCut = false;  // begins within a record whose start was overwritten
};

struct Layout {
    FileKind kind = FileKind::kEmptyFile;
    std::vector<Segment> segments;
    uint64_t size = 0;
    uint64_t start = 0;  // of each cycle: behind the begin record of a ring, the wrap line of a log
    uint64_t newest = 0;       // the newest record ends here, and the next one will begin
    uint64_t oldEnd = 0;       // where the cycle before ended
    uint64_t overwritten = 0;  // bytes of records that lost their start
    uint32_t cycle = 0;        // of a log, 0: not wrapped yet; of a ring 1 when it has wrapped
    // Of a ring: the bytes in front of the newest record's end and the trailer, as they stood there
    // together. Empty without a trailer.
    std::string mark;
    std::string problem;  // in a few words, empty when all is as it should be
};

[[nodiscard]] Layout ExamineFile(const TraceFile& file);

// The two layouts, for ExamineFile. `begin` is where the begin record of a ring stands; kNowhere
// when it is damaged.
void ExamineRing(const TraceFile& file, uint64_t begin, Layout& layout);
void ExamineLog(const TraceFile& file, Layout& layout);

inline constexpr std::string_view kTrailerLine = "\n## TRACE-END ##\n";
inline constexpr uint64_t kTrailerLength = kTrailerLine.size() - 1;

// Where the dots at the end of a ring begin; its size when there are none.
[[nodiscard]] uint64_t FindDots(const TraceFile& file, uint64_t start, uint64_t size);
// Where the trailer behind `start` begins; kNowhere while a record is being written.
[[nodiscard]] uint64_t FindTrailer(const TraceFile& file, uint64_t start, uint64_t end);
// Sets the newest record and the mark, from `trailer` on, where a trailer was seen a moment ago.
// False when none stays long enough.
[[nodiscard]] bool TakeMark(const TraceFile& file, uint64_t trailer, Layout& layout);
// The process that wrote the file, as its header says; 0 when it does not.
[[nodiscard]] int FindWriter(const TraceFile& file);
