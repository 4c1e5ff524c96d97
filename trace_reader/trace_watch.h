// Waits until a trace file may have changed. A log is written by calls, which the system reports;
// the writer of a ring makes one for that, at most every ten milliseconds.
#pragma once

#include <string>

#include "base/unique_fd.h"

class TraceWatch {
  public:
    TraceWatch();

    // Watches the directory of a file, where files also come and go. False with errno.
    [[nodiscard]] bool Add(const std::string& path);

    // Returns at a change, and twice more when nothing happens after it. False when the reader of
    // `output` has gone away.
    [[nodiscard]] bool Wait(int output);

  private:
    UniqueFd m_fd;
    int m_looks = 2;  // that are still to come
};
