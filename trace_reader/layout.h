// Where the records of a trace file are, in the order in which they were written. See
// docs/trace-files.md for the two layouts.
//
// The newest record of a ring ends at the trailer that is followed by older records; that of a log
// is, in the cycle that the wrap line begins, the one before the first that is older. A file where
// this does not give exactly one place is shown in file order, and is not certain.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "trace_reader/record_stream.h"

enum class FileKind : uint8_t { kEmptyFile, kForeignFile, kLogFile, kRingFile };

// What is shown about a file.
struct FileFacts {
    FileKind kind = FileKind::kEmptyFile;
    uint64_t size = 0;  // bytes, unpacked
    // Of a log the number, 0: not wrapped yet; of a ring 0 for the first one, 1 for a later one.
    uint32_t cycle = 0;
    uint64_t overwritten = 0;  // bytes of records whose start had been overwritten
    bool isCertain = true;     // false: the segments stand in the order of the file
    // Lines at the end of its newest record, or in a log of the last one of the cycle before, may
    // be left of older ones.
    bool hasUncertainLines = false;
    std::string problem;  // in a few words; empty when all is as it should be
};

struct Layout : FileFacts {
    std::vector<Segment> segments;
    uint64_t start = 0;   // of each cycle: after the begin record of a ring, the wrap line of a log
    uint64_t newest = 0;  // the newest record ends here, and the next one will begin
    uint64_t certain = 0;  // of a log: it ends here or at `newest`, or between them
    // Of a ring, for a reader that comes back to it:
    bool hasStart = true;  // false: where its cycles start was not found, or it is being made
    std::string run;    // its begin record, which another run has with another time; may be empty
    std::string first;  // the first bytes of the cycle, which the next cycle overwrites first
    std::string mark;   // the last bytes before the newest record's end
};

[[nodiscard]] Layout ExamineFile(const TraceFile& file);

// Of a ring: looks for its trailer from `from` on, and sets the newest record, the first bytes and
// the mark, all of one cycle. False when there is not one trailer: the writer may be between a
// record and its trailer.
[[nodiscard]] bool FindNewest(const TraceFile& file, uint64_t from, Layout& layout);
// Whether the writer is where the layout says.
[[nodiscard]] bool IsUntouched(const TraceFile& file, const Layout& layout);
// Where the dots at the end of a ring begin; its size when there are none.
[[nodiscard]] uint64_t FindDots(const TraceFile& file, uint64_t start, uint64_t size);

// Tells what of a ring is still as it was when it was examined, while its writer goes on.
class RingGuard {
  public:
    // The file outlives the guard.
    RingGuard(const TraceFile& file, const Layout& layout);
    // As RecordStream::ValidFrom.
    [[nodiscard]] uint64_t operator()(const Segment& segment);

  private:
    const TraceFile& m_file;
    Layout m_layout;      // as it was
    uint64_t m_oldValid;  // of the records of the cycle before
    uint64_t m_newValid;
    bool m_mayWait = true;  // for a writer that is between two records
};

// The wrap line of a log, when one stands at this offset and says so.
struct WrapLine {
    uint32_t cycle = 0;
    uint64_t start = 0;
};
[[nodiscard]] std::optional<WrapLine> ReadWrapLine(const TraceFile& file, uint64_t offset);

// The process that wrote the file, as its header says; 0 when it does not.
[[nodiscard]] int FindWriter(const TraceFile& file);
