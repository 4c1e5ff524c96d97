// The small persistent log: records are appended until the size limit is passed, then writing
// continues after the start-up part. The file is never truncated after it was opened. See
// docs/trace-files.md. The caller holds the trace object's lock.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>

#include "base/unique_fd.h"

class LogFile {
  public:
    // Truncates the file; only a regular one, at the end of a link too, or the null device. Closes
    // what was open before and starts counting from 0 again.
    [[nodiscard]] bool Open(const char* path);
    void Close();
    // In the child of a fork: the file is the parent's.
    void Forget() { (void)m_fd.Release(); }
    [[nodiscard]] bool IsOpen() const { return m_fd.IsOpen(); }
    [[nodiscard]] int Descriptor() const { return m_fd.Get(); }

    void SetLimit(uint32_t bytes) { m_limit = bytes; }
    [[nodiscard]] uint32_t Limit() const { return m_limit; }

    // Writes one record; a failure drops the rest of it. True when it was written and the file is
    // now above its limit: BeginCycle is due.
    bool Append(std::string_view record);

    // What was written so far stays; later cycles start after it.
    void MarkStartupEnd();

    // Moves back to the end of the start-up part. False with errno when the file cannot seek;
    // writing then continues at the start.
    [[nodiscard]] bool BeginCycle();
    [[nodiscard]] int32_t Cycle() const { return m_cycle; }
    [[nodiscard]] uint32_t StartupCount() const { return static_cast<uint32_t>(m_startupCount); }

  private:
    UniqueFd m_fd;
    uint32_t m_limit = 51200;
    off_t m_startupOffset = 0;
    uint64_t m_startupCount = 0;
    uint64_t m_count = 0;
    int32_t m_cycle = 0;
};
