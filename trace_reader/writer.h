// Whether a process of this host has a file open, and how far it has written it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>

#include "trace_reader/trace_file.h"

// Of other users' processes only root may ask, and not in every container.
enum class Writing : uint8_t { kNo, kYes, kUnseen };
[[nodiscard]] Writing SeeWriter(int process, const TraceFile& file);

// False also when that cannot be seen.
[[nodiscard]] bool IsWriter(int process, const TraceFile& file);
// Whether some of the files that a process has open cannot be seen.
[[nodiscard]] bool HidesFiles(int process);

// Where in a file that some process writes its next write goes.
class WritePosition {
  public:
    // 0 when that cannot be seen. Every write that went in front of it is over. Keeps in mind who
    // writes, and for a second that nobody was found.
    [[nodiscard]] uint64_t Find(const TraceFile& file);

  private:
    [[nodiscard]] uint64_t Search(const TraceFile& file);

    std::filesystem::path m_descriptor;  // in /proc
    std::chrono::steady_clock::time_point m_nextSearch;
};
