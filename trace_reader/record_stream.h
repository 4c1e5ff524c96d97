// Reads the records of one segment of a file, block by block, and finds records in it without
// reading all of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "trace_reader/record.h"
#include "trace_reader/trace_file.h"

// A part of a file, [begin, end).
struct Segment {
    uint64_t begin = 0;
    uint64_t end = 0;
    RecordKind kind = RecordKind::kRecord;
    bool isCut = false;  // begins within a record whose start was overwritten
};

class RecordStream {
  public:
    // For a file whose writer goes on: the first offset of a segment from which on everything that
    // was read before the call is good.
    using ValidFrom = std::function<uint64_t(const Segment&)>;

    // The file outlives the stream.
    explicit RecordStream(const TraceFile& file, ValidFrom validFrom = {})
        : m_file(file), m_validFrom(std::move(validFrom)) {}

    void Start(const Segment& segment);

    // False at the end of the segment. The views of a record are valid until the next call.
    [[nodiscard]] bool Next(TraceRecord& record);
    // As many records before this time as are in the buffer, but no pre-fill and nothing without a
    // prefix: false when one of these, or a later one, comes next.
    [[nodiscard]] bool NextBlock(RecordBlock& run, int64_t before = INT64_MAX);
    // Where the record that Next gave begins in the file.
    [[nodiscard]] uint64_t Offset() const { return m_recordOffset; }

    // Bytes before the first record of a cut segment; bytes that the writer overwrote while they
    // were read.
    [[nodiscard]] uint64_t CutBytes() const { return m_cutBytes; }
    [[nodiscard]] uint64_t LostBytes() const { return m_lostBytes; }
    // At the end: the segment after a page that cannot be read.
    [[nodiscard]] const std::optional<Segment>& Rest() const { return m_rest; }

  private:
    // A longer record is split: a file without any line feed must not fill the memory.
    static constexpr size_t kLongest = size_t{1} << 28;

    // Of the record at m_position; `next` and `head` are of the one after it.
    struct Bounds {
        size_t end = 0;
        size_t next = 0;
        PrefixParser::Head head;
    };
    void Fill();
    bool MakeRoom();
    void EndAt(uint64_t offset);
    bool FindEnd(Bounds& bounds);
    bool Load(Bounds& bounds);
    void GoTo(const Bounds& bounds) {
        m_position = bounds.next;
        m_head = bounds.head;
    }
    [[nodiscard]] bool IsPlain(size_t end) const;
    void Describe(TraceRecord& record);
    void Classify(TraceRecord& record) const;

    const TraceFile& m_file;
    ValidFrom m_validFrom;
    Segment m_segment;
    std::optional<Segment> m_rest;
    PrefixParser m_parser;
    std::unique_ptr<char[]> m_buffer;
    size_t m_capacity = 0;
    size_t m_position = 0;  // of the next record in the buffer
    size_t m_end = 0;       // of what was read
    uint64_t m_offset = 0;  // of the buffer in the file
    uint64_t m_recordOffset = 0;
    PrefixParser::Head m_head;  // of the next record
    bool m_isAll = false;       // the buffer has all that is left, or as much as it can
    bool m_skips = false;       // up to the next head
    int64_t m_lastTime = 0;
    uint64_t m_cutBytes = 0;
    uint64_t m_lostBytes = 0;
};

// The first record that begins in [begin, end), where `begin` may lie within another one.
struct RecordPlace {
    uint64_t offset;
    int64_t time;
    RecordKind kind;
};
[[nodiscard]] std::optional<RecordPlace> FindRecord(const TraceFile& file, uint64_t begin,
                                                    uint64_t end);

// Narrows a segment to its records of these times (as in TraceRecord, both inclusive) and a few
// around them. Where the clock went back, a part that is shorter than a hundredth of the segment
// may be missed.
void NarrowToTimes(const TraceFile& file, Segment& segment, int64_t since, int64_t until);
// Narrows a segment to its last records. Returns how many there are, `most` at the most.
uint64_t NarrowToLast(const TraceFile& file, Segment& segment, uint64_t most);
