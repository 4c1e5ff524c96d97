// Tells what of a ring is still as it was when the ring was examined, while its writer goes on.
#pragma once

#include <cstdint>
#include <string>

#include "trace_reader/layout.h"
#include "trace_reader/trace_file.h"

class RingGuard {
  public:
    RingGuard(const TraceFile& file, const Layout& layout);

    // The first offset of this segment from which on everything that was read before this call is
    // good; the segment's begin when the writer has not come there, its end when all of it may be
    // overwritten.
    [[nodiscard]] uint64_t ValidFrom(const Segment& segment);

  private:
    [[nodiscard]] bool IsUntouched() const;
    void Look();

    const TraceFile& m_file;
    uint64_t m_start;
    uint64_t m_newest;
    uint64_t m_size;
    bool m_mayWait = true;  // it has not been in vain
    std::string m_mark;     // the bytes in front of the newest trailer
    uint64_t m_oldValid;    // of the records behind the newest
    uint64_t m_newValid;    // of the records in front of it
};
