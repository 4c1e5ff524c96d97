// Where the records of a trace file are, in the order in which they were written. See
// docs/trace-files.md for the two layouts.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "trace_reader/record.h"
#include "trace_reader/trace_file.h"

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
    uint64_t certain = 0;      // of a log: it ends here or at `newest`, or between them
    uint64_t oldEnd = 0;       // where the cycle before ended
    uint64_t overwritten = 0;  // bytes of records that lost their start
    uint32_t cycle = 0;        // of a log, 0: not wrapped yet; of a ring 1 when it has wrapped
    // Lines at the end of its newest record, or in a log of the last one of the cycle before, may
    // be left of older ones, or lines of it be missing.
    bool hasUncertainLines = false;
    // Of a ring, for those who come back to it:
    bool hasTrailer = false;
    bool isStartCut = false;  // where its cycles start was not found, `start` is in front of it
    std::string run;          // its begin record, which another run has with another time
    std::string first;        // the first bytes of the cycle, which the next cycle overwrites first
    std::string mark;         // the last bytes in front of the newest record's end
    std::string problem;      // in a few words, empty when all is as it should be
};

// Of a copy of a log one may know where its writer was when it was made (0: not known); otherwise
// the writer is looked for.
[[nodiscard]] Layout ExamineFile(const TraceFile& file,
                                 std::optional<uint64_t> position = std::nullopt);

// The two layouts, for ExamineFile. `begin` is where the begin record of a ring stands; kNowhere
// when it is damaged.
void ExamineRing(const TraceFile& file, uint64_t begin, Layout& layout);
void ExamineLog(const TraceFile& file, std::optional<uint64_t> position, Layout& layout);

// The wrap line of a log, when one stands at this offset.
struct WrapLine {
    uint32_t cycle = 0;
    uint64_t start = 0;  // of the cycle, where the line stands
    uint64_t limit = 0;
};
[[nodiscard]] std::optional<WrapLine> ReadWrapLine(const TraceFile& file, uint64_t offset);

// Where the dots at the end of a ring begin; its size when there are none.
[[nodiscard]] uint64_t FindDots(const TraceFile& file, uint64_t start, uint64_t size);
// Sets the newest record of a ring, the first bytes and the mark, all of one cycle, from what
// `find` gives: the offset of the trailer. False while the writer is between two records.
template <typename Find>
[[nodiscard]] bool TakePlace(const TraceFile& file, const Find& find, Layout& layout) {
    constexpr uint64_t kFirst = 128, kMark = 4096;
    const std::string before = file.Read(layout.start, kFirst);
    const uint64_t trailer = find();
    if (trailer == TraceFile::kNowhere || trailer < layout.start) return false;
    // Only now: what was read before the trailer was seen may have been older than the record.
    const uint64_t length = std::min(kMark, trailer - layout.start);
    std::string mark = file.Read(trailer - length, length);
    std::string first = file.Read(layout.start, std::min(kFirst, trailer - layout.start));
    if (!before.starts_with(first)) return false;
    layout.newest = trailer;
    layout.first = std::move(first);
    layout.mark = std::move(mark);
    return true;
}
// The process that wrote the file, as its header says; 0 when it does not.
[[nodiscard]] int FindWriter(const TraceFile& file);
