// One trace file as a stream of its records in the order in which they were written. Not for
// several threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "trace_reader/layout.h"
#include "trace_reader/log_copy.h"
#include "trace_reader/record_stream.h"

// What was found. Counts grow while records are read and are whole at the end.
struct SourceFacts : FileFacts {
    bool isCompressed = false;
    uint64_t records = 0;   // those of kind kRecord
    int64_t firstTime = 0;  // of those; as in TraceRecord
    int64_t lastTime = 0;
    uint64_t clockBack = 0;    // how often the time went back
    uint64_t lost = 0;         // bytes that the writer overwrote while they were read
    bool isOvertaken = false;  // records were overwritten before a reader that follows came to them
    uint64_t foreign = 0;      // bytes before the first record
    int writer = 0;            // the process that the header names, 0: none
    std::string error;         // what could not be read, and why: something is missing
};

class TraceSource {
  public:
    TraceSource(std::string path, uint16_t number) : m_path(std::move(path)), m_number(number) {}
    TraceSource(const TraceSource&) = delete;
    TraceSource& operator=(const TraceSource&) = delete;
    ~TraceSource() = default;

    // False when there is nothing to read; Facts().error says why. An empty or foreign file opens.
    bool Open();

    // Everything, also what is not a record, in the order: header, older cycle, dots, newer cycle,
    // trailer, pre-fill. Otherwise only records of kind kRecord are given.
    void ShowAll(bool showAll) { m_showsAll = showAll; }

    // False at the end. The views of a record are valid until the next call for this source.
    [[nodiscard]] bool Next(TraceRecord& record);
    // Several at once, all before this time: false where there are none, and Next goes on. Not
    // after a false Next.
    [[nodiscard]] bool NextBlock(RecordBlock& run, int64_t before = INT64_MAX);
    // Begins again with the first record.
    void Rewind();
    // To be called before Next: leaves out most of what is older or newer than these times, and
    // then all but the `last` records, without reading it.
    void Select(int64_t since, int64_t until, uint64_t last = UINT64_MAX);
    // Whether records are left out because there are more of them than `last`.
    [[nodiscard]] bool IsShortened() const { return m_isShortened; }

    // For a reader that follows: looks for what was written since the last call of Advance or Open.
    // Next then gives it. A file that was begun again is given from its start. False: nothing new.
    // A compressed file that comes while one follows is left out: it was given as a ring.
    [[nodiscard]] bool Advance();
    // Leaves out a last line that may not be whole yet. To be called before Open.
    void Follow() { m_follows = true; }

    [[nodiscard]] const SourceFacts& Facts() const { return m_facts; }
    [[nodiscard]] bool IsLog() const { return m_facts.kind == FileKind::kLogFile; }
    [[nodiscard]] bool HasLost() const { return m_facts.lost > 0 || m_facts.isOvertaken; }
    // False: it cannot be read, or not all of it, or is not a trace file.
    [[nodiscard]] bool IsGood() const;
    // What is wrong with the file, in a few words; empty: nothing.
    [[nodiscard]] const std::string& Problem() const {
        return m_facts.error.empty() ? m_facts.problem : m_facts.error;
    }
    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] const TraceFile& File() const { return m_file; }
    [[nodiscard]] bool IsOpen() const { return m_file.IsOpen(); }

  private:
    [[nodiscard]] Layout Examine();
    void Take(Layout layout);
    void Begin(std::vector<Segment> parts);
    void StartPart();
    void EndPart();
    [[nodiscard]] const TraceFile& Readable() const { return m_log ? m_log->File() : m_file; }
    [[nodiscard]] bool IsHidden(TraceRecord& record);
    void Count(const RecordBlock& run);
    [[nodiscard]] bool IsReady(const Layout& layout) const;
    [[nodiscard]] bool AdvanceFile();
    [[nodiscard]] bool Reopen();
    [[nodiscard]] bool BeginAgain(bool isOvertaken = false);
    [[nodiscard]] bool AdvanceRing();
    [[nodiscard]] std::optional<bool> LookAtRing();
    [[nodiscard]] bool AdvanceLog();
    [[nodiscard]] bool IsKept(uint64_t from) const;
    [[nodiscard]] bool IsSameRun() const;
    [[nodiscard]] bool FindPlace(Layout& layout) const;

    std::string m_path;
    uint16_t m_number;
    bool m_showsAll = false;
    bool m_follows = false;
    bool m_isShortened = false;
    TraceFile m_file;
    std::optional<LogCopy> m_log;  // of a log that is followed; the copy is what is read
    Layout m_layout;
    std::vector<Segment> m_parts;  // what is read
    size_t m_part = 0;
    std::optional<RecordStream> m_stream;
    uint64_t m_gap = 0;         // how much was passed over since something could be read
    bool m_isInHeader = false;  // of a log
    bool m_isInFront = false;   // nothing but what may stand before a header was read
    SourceFacts m_facts;
};
