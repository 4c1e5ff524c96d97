// Follows a log while it is written. It keeps a copy of the log in memory: what differs from it is
// new, whatever the time stamps are, and a record that was taken over cannot be overwritten before
// it is shown. Without memory it throws std::bad_alloc. Not for several threads.
#pragma once

#include <cstdint>
#include <string>

#include "trace_reader/layout.h"
#include "trace_reader/trace_file.h"

class LogCopy {
  public:
    // Copies the log as it is at one moment. The log outlives it.
    explicit LogCopy(const TraceFile& log);

    [[nodiscard]] const TraceFile& File() const { return m_copy; }
    // The newest record of the copy ends here or at its layout's newest, or between them.
    void SetCertain(uint64_t certain) { m_certain = certain; }

    enum class News {
        kNone,
        kMore,       // in the segments of the layout
        kRestarted,  // the log is another one now
        kOvertaken,  // records are gone that were not taken over
    };
    // Takes over what was written after the newest record of this layout of the copy. After
    // kRestarted and kOvertaken the copy is of no use.
    [[nodiscard]] News Look(Layout& layout);

  private:
    [[nodiscard]] std::string Snapshot() const;
    void Put(uint64_t begin, uint64_t end);
    [[nodiscard]] uint64_t SkipLines(uint64_t end, uint64_t limit) const;
    [[nodiscard]] uint64_t TakeOver(uint64_t begin, uint64_t limit);
    [[nodiscard]] uint64_t Resume(uint64_t newest) const;
    [[nodiscard]] News GoOn(Layout& layout);
    [[nodiscard]] News BeginCycle(const WrapLine& wrap, Layout& layout);

    const TraceFile& m_log;
    TraceFile m_copy;
    uint64_t m_certain = 0;
    std::string m_now;  // the log and, before this look, the copy
    std::string m_before;
};
