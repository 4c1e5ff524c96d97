// A file of fixed size, mapped into memory and written as a ring. It knows bytes and offsets only:
// what the header is and when a cycle begins is decided by the trace object, whose lock the caller
// holds. See docs/trace-files.md for the layout.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/mapped_region.h"
#include "base/unique_fd.h"
#include "trace/texts.h"

class RingBuffer {
  public:
    static constexpr std::string_view kTrailer = trace_text::kTrailer;
    static constexpr int64_t kLineLength = trace_text::kPreFillLine;
    static constexpr size_t kAlignment = trace_text::kAlignment;

    // Opening takes three steps, each false with errno: create the file, fill it line by line up to
    // its size (this reserves the disk blocks: a store into a hole of a full disk would kill the
    // process), map it.
    [[nodiscard]] bool Create(const char* path);
    [[nodiscard]] bool Fill(std::string_view lines);
    [[nodiscard]] bool Map(size_t size);
    // Unmaps, closes and forgets all offsets.
    void Close();
    // Empties a file that could not be filled or mapped, and closes it: on a full disk it would
    // keep the space that everything else needs, even the record of the failure.
    void Discard();
    // In the child of a fork: the ring is the parent's.
    void Forget() {
        m_map.Forget();
        (void)m_fd.Release();
    }

    [[nodiscard]] bool IsMapped() const { return m_map.Data() != nullptr; }
    [[nodiscard]] int Descriptor() const { return m_fd.Get(); }
    [[nodiscard]] size_t Size() const { return m_map.Size(); }

    // Copies one record, and the trailer after it. False, with nothing written, when both no longer
    // fit.
    [[nodiscard]] bool Append(std::string_view record);

    // Ends the header: leaves 1 to 2 KiB of slack and moves to an aligned offset.
    void EndHeader();
    // Later cycles start at this position.
    void SetRestart() { m_restartOffset = m_writeOffset; }
    // Fills the rest of the file with dots and moves to its start, where the header goes again.
    void BeginCycle();
    // Moves to the restart position and appends, cutting the record where the file ends.
    void Resume(std::string_view record);

    // Changes no byte, but the system then reports the file as written to everyone who watches it:
    // it reports calls, never stores into a mapping. At most once in 10 ms, after which a follower
    // looks again. Most records take the test of the second alone. Keeps errno.
    void WakeFollowers(const timeval& now) {
        const auto passed = static_cast<uint64_t>(now.tv_usec - m_lastWake.tv_usec);
        if (now.tv_sec != m_lastWake.tv_sec || passed >= kWakePause) WakeNow(now);
    }

  private:
    static constexpr int kWakePause = 10'000;  // microseconds

    void WakeNow(const timeval& now);

    UniqueFd m_fd;
    MappedRegion m_map;
    off_t m_fileSize = 0;  // as it was made
    size_t m_writeOffset = 0;
    size_t m_restartOffset = 0;
    uint32_t m_wrapCount = 0;
    timeval m_lastWake{};
};

// Compresses a closed ring with the gzip tool and waits for the tool's end, whatever that is. False
// when it could not be started.
bool CompressFile(const char* path);
