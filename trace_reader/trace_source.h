// One trace file as a stream of its records in the order in which they were written. Not for
// several threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "trace_reader/layout.h"
#include "trace_reader/log_follower.h"
#include "trace_reader/record.h"
#include "trace_reader/record_stream.h"
#include "trace_reader/ring_guard.h"
#include "trace_reader/trace_file.h"

// What was found. Counts grow while records are read and are whole at the end.
struct SourceFacts {
    FileKind kind = FileKind::kEmptyFile;
    bool isCompressed = false;
    uint32_t cycle = 0;     // of a log the number; of a ring 0 for the first one, 1 for a later one
    uint64_t size = 0;      // bytes, unpacked
    uint64_t records = 0;   // those of kind kRecord
    int64_t firstTime = 0;  // of those; as in TraceRecord
    int64_t lastTime = 0;
    uint64_t clockBack = 0;    // how often the time went back
    uint64_t overwritten = 0;  // bytes of records whose start had been overwritten
    uint64_t lost = 0;         // bytes that the writer overwrote while they were read
    bool isOvertaken = false;  // records were overwritten before a reader that follows came to them
    uint64_t foreign = 0;      // bytes in front of the first record
    int writer = 0;            // the process that the header names, 0: none
    bool isWritten = false;    // that process has the file open
    bool hasUncertainLines = false;  // as in Layout
    std::string problem;             // in a few words, empty when there is none
};

class TraceSource {
  public:
    TraceSource(std::string path, uint16_t number) : m_path(std::move(path)), m_number(number) {}
    TraceSource(const TraceSource&) = delete;
    TraceSource& operator=(const TraceSource&) = delete;
    ~TraceSource() = default;

    // False when there is nothing to read; Facts().problem says why. An empty or foreign file
    // opens.
    bool Open();

    // Everything, also what is no record, in the order: header, older cycle, dots, newer cycle,
    // trailer, pre-fill. Otherwise only records of kind kRecord are given.
    void ShowAll(bool showAll) { m_showsAll = showAll; }

    // False at the end. The views of a record are valid until the next call for this source.
    [[nodiscard]] bool Next(TraceRecord& record);
    // Several at once: false where there are none, and Next goes on. Not after a false Next.
    [[nodiscard]] bool NextRun(TraceRun& run, RunLimit* limit = nullptr);
    // Begins again with the first record.
    void Rewind();
    // To be called before Next: skips records that are older than this time (as in TraceRecord)
    // without reading them. Some of them may still be given. Where the clock went back over this
    // time within less than a hundredth of the file, records of this time may be skipped, too.
    void SeekTime(int64_t time);

    // For a reader that follows: looks for what was written since the last call of Advance or Open.
    // Next then gives it. A file that was begun anew is given from its start. False: nothing new.
    // A compressed file that comes while one follows is left out: it was given as a ring.
    [[nodiscard]] bool Advance();
    // Leaves out a last line that may not be whole yet. To be called before Open.
    void Follow() { m_follows = true; }

    [[nodiscard]] const SourceFacts& Facts() const { return m_facts; }
    [[nodiscard]] bool HasLost() const { return m_facts.lost > 0 || m_facts.isOvertaken; }
    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] const TraceFile& File() const { return m_file; }
    // Where the newest record ended at the last look.
    [[nodiscard]] uint64_t NewestEnd() const { return m_layout.newest; }
    [[nodiscard]] bool IsOpen() const { return m_file.IsOpen(); }

  private:
    [[nodiscard]] Layout Examine();
    void Take(Layout layout);
    void Guard();
    void StartSegment();
    void EndSegment();
    bool IsHidden(TraceRecord& record);
    void Count(const TraceRun& run);
    [[nodiscard]] bool IsReady(const Layout& layout) const;
    [[nodiscard]] bool IsUntouched() const;
    [[nodiscard]] bool IsKept(uint64_t from) const;
    [[nodiscard]] bool AdvanceFile();
    [[nodiscard]] bool Reopen();
    [[nodiscard]] bool BeginAnew(bool isOvertaken = false);
    [[nodiscard]] bool AdvanceRing();
    [[nodiscard]] bool AdvanceLog();
    [[nodiscard]] bool IsSameRun() const;
    [[nodiscard]] bool LookAgain(Layout& layout, bool mustBeLikely) const;
    [[nodiscard]] bool AwaitPlace(Layout& layout) const;
    [[nodiscard]] bool GoOn(Layout layout, bool isNextCycle);

    std::string m_path;
    uint16_t m_number;
    bool m_showsAll = false;
    bool m_follows = false;
    TraceFile m_file;
    std::optional<LogFollower> m_log;  // of a log that is followed; its copy is what is read
    Layout m_layout;
    std::optional<RingGuard> m_guard;
    std::optional<RecordStream> m_stream;
    size_t m_segment = 0;
    bool m_isInHeader = false;      // of a log
    bool m_isInFront = false;       // nothing but what may stand in front of a header was read
    bool m_beginsInHeader = false;  // what is given since the last look
    SourceFacts m_facts;
};
