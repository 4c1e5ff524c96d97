// Waits until a trace file may have changed.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "services/base/unique_fd.h"
#include "trace_reader/store_watch.h"
#include "trace_reader/trace_merge.h"

class TraceWatch {
  public:
    TraceWatch();

    // Watches the directory of a file, where files also come and go. False with errno.
    [[nodiscard]] bool Add(const std::string& path);

    // To be called when everything was read: sees to it that the next record of a ring ends the
    // wait. What was written meanwhile is to be looked for once more before Wait.
    void Arm(const TraceMerge& merge);

    // Waits for a change; nothing is called meanwhile. A ring is written by stores into mapped
    // memory, of which the system tells nobody: where they cannot be seen (see StoreWatch) the wait
    // ends after a few milliseconds. False when the reader of `output` has gone away.
    [[nodiscard]] bool Wait(int output);

  private:
    [[nodiscard]] bool Watch(const std::filesystem::path& file);
    [[nodiscard]] bool ArmRing(const TraceSource& ring);

    UniqueFd m_fd;
    std::map<const TraceSource*, StoreWatch> m_stores;
    bool m_isTimed = false;
};
