// Reads the records of one segment, block by block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "trace_reader/layout.h"
#include "trace_reader/prefix.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_file.h"

class RingGuard;

class RecordStream {
  public:
    // Owns neither; without a guard nothing is checked. Both outlive the stream.
    explicit RecordStream(const TraceFile& file, RingGuard* guard = nullptr)
        : m_file(file), m_guard(guard) {}

    void Start(const Segment& segment);

    // False at the end of the segment. The views of a record are valid until the next call.
    [[nodiscard]] bool Next(TraceRecord& record);
    // As many records as are in the buffer, but no pre-fill and nothing without a prefix: false
    // when that, or what the limit does not allow, comes next.
    [[nodiscard]] bool NextRun(TraceRun& run, RunLimit* limit = nullptr);
    // Where the record that Next gave begins in the file.
    [[nodiscard]] uint64_t Offset() const { return m_recordOffset; }

    // Bytes in front of the first record of a cut segment; bytes that the writer overwrote while
    // they were read.
    [[nodiscard]] uint64_t CutBytes() const { return m_cutBytes; }
    [[nodiscard]] uint64_t LostBytes() const { return m_lostBytes; }

  private:
    // A longer record is parted: a file without any line feed must not fill the memory.
    static constexpr size_t kLongest = size_t{1} << 28;

    enum class More { kRead, kEnd, kMoved };
    More ReadMore(size_t& scan);
    bool MakeRoom(size_t& scan);
    void Restart(uint64_t offset);
    void SkipCut();
    size_t FindEnd(size_t& next);
    bool FindInBuffer(size_t& end, size_t& next);
    bool FindWhole(PrefixParser::Head& head, size_t& end, size_t& next);
    bool Continue();
    [[nodiscard]] bool IsPlain(const PrefixParser::Head& head, size_t end) const;
    void Describe(TraceRecord& record, const PrefixParser::Head& head);
    void Classify(TraceRecord& record) const;

    const TraceFile& m_file;
    RingGuard* m_guard;
    Segment m_segment;
    PrefixParser m_parser;
    std::unique_ptr<char[]> m_buffer;
    size_t m_capacity = 0;
    size_t m_position = 0;  // of the next record in the buffer
    size_t m_end = 0;       // of what was read
    uint64_t m_offset = 0;  // of the buffer in the file
    uint64_t m_recordOffset = 0;
    PrefixParser::Head m_head;  // of the next record
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
