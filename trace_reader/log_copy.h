// Follows a log while it is written. It keeps a copy of the log in memory: what differs from it is
// new, whatever the time stamps are, and a record that was taken over cannot be overwritten before
// it is shown. Not for several threads.
#pragma once

#include <cstdint>

#include "trace_reader/layout.h"
#include "trace_reader/trace_file.h"

class LogCopy {
  public:
    // The log outlives it.
    explicit LogCopy(const TraceFile& log) : m_log(log) {}

    // Copies the log as it is at one moment. False when there is no memory.
    [[nodiscard]] bool Take();
    [[nodiscard]] const TraceFile& File() const { return m_copy; }
    // The newest record of the copy ends here or at its layout's newest, or between them.
    void SetCertain(uint64_t certain) { m_certain = certain; }

    enum class News {
        kNone,
        kMore,       // in the segments of the layout
        kRestarted,  // the log is another one now
        kOvertaken,  // records are gone that were not taken over
        kFailed,     // there is no memory
    };
    // Takes over what was written after the newest record of this layout of the copy. After
    // kRestarted, kOvertaken and kFailed the copy is of no use: Take it again.
    [[nodiscard]] News Look(Layout& layout);

  private:
    [[nodiscard]] bool CopyRange(uint64_t begin, uint64_t end);
    [[nodiscard]] uint64_t FindChange(uint64_t begin, uint64_t end) const;
    [[nodiscard]] uint64_t FindChangedEnd(uint64_t begin, uint64_t limit) const;
    [[nodiscard]] uint64_t SkipLines(uint64_t end, uint64_t limit) const;
    [[nodiscard]] uint64_t TakeOver(uint64_t begin, uint64_t limit);
    [[nodiscard]] uint64_t ComparedEnd(const Layout& layout) const;
    [[nodiscard]] uint64_t Resume(uint64_t newest) const;
    [[nodiscard]] News GoOn(Layout& layout);
    [[nodiscard]] News BeginCycle(const WrapLine& wrap, Layout& layout);

    const TraceFile& m_log;
    TraceFile m_copy;
    uint64_t m_certain = 0;
    bool m_hasFailed = false;
};
