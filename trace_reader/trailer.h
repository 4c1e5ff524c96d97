// The line behind the newest record of a ring.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "trace_reader/trace_file.h"

inline constexpr std::string_view kTrailerLine = "\n## TRACE-END ##\n";
inline constexpr uint64_t kTrailerLength = kTrailerLine.size() - 1;

struct Trailer {
    uint64_t offset = TraceFile::kNowhere;
    // Behind it stand older records, pre-fill or nothing. A line like it in a text has newer ones
    // behind it; but so has the trailer itself when the clock was put back.
    bool isLikely = false;
    // There are more such lines in front of the next record: of the newest text, or of the piece of
    // an older one.
    bool isOneOfMany = false;
};

// The trailer in a cycle that begins at `start`. None while a record is being written. Of several
// unlikely ones the last.
[[nodiscard]] Trailer FindTrailer(const TraceFile& file, uint64_t start, uint64_t end);
// The same from a place on that is known to be in the cycle.
[[nodiscard]] Trailer FindTrailerFrom(const TraceFile& file, uint64_t start, uint64_t from,
                                      uint64_t end);

// Where the records of one cycle end and older ones or pre-fill begin, by time stamps: between
// `begin` and `end`, which come closer. Far faster than reading half of the file. Wrong when the
// clock went back.
void NarrowNewest(const TraceFile& file, uint64_t& begin, uint64_t& end);

// For those who wait for a writer that is between a record and its trailer.
class Patience {
  public:
    // Sleeps for a moment; false when it has been long enough.
    [[nodiscard]] bool Wait() const;

  private:
    std::chrono::steady_clock::time_point m_end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
};
