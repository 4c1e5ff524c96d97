// The trace files of runs that did not end in order, kept in a directory for each run below
// log.kemd_runs in the log directory. Names are times, so that they sort. Files are moved, never
// copied; links are not followed, and nothing is removed that was not moved there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "kemdctl/trace/run_marks.h"

inline constexpr const char* kTraceFileNames[] = {"log.kemd_i.gz", "log.kemd_i", "log.kemd_a",
                                                  "log.kemd"};

// Whether the trace file has such a record; not when it cannot be read.
[[nodiscard]] bool HasRunMark(const std::string& path, RunMark::Kind kind);

struct KeptRun {
    std::string name;
    uint64_t size = 0;  // bytes of its files
};

class KeptRuns {
  public:
    explicit KeptRuns(const std::string& logDirectory)
        : m_logPath(logDirectory), m_path(logDirectory + "/log.kemd_runs") {}

    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] std::string PathOf(const KeptRun& run) const { return m_path + "/" + run.name; }

    // False with errno, which is ENOENT when nothing was ever kept.
    [[nodiscard]] bool Open();
    // Oldest first.
    [[nodiscard]] std::vector<KeptRun> List() const;

    // Moves the files in the log directory into a new run, which is added to the list. A file of
    // no known kind in the place of one stays, and so do those that would exceed the limit of
    // bytes; the log goes first. Empty, or what went wrong; `run` has a name when something was
    // moved.
    [[nodiscard]] std::string Keep(uint64_t limit, KeptRun& run);
    // Removes runs, the oldest first and never the newest, until they are no more than this and,
    // if that can be had, the file system has so much free space. Of several runs that never
    // finished their start-up the oldest goes first: a start that fails again and again must not
    // push out the crash before it. Empty, or what could not be removed.
    [[nodiscard]] std::string Trim(uint64_t runs, uint64_t bytes, uint64_t freeBytes);
    // Of the file system; UINT64_MAX when it does not say.
    [[nodiscard]] uint64_t FreeBytes() const;

  private:
    [[nodiscard]] std::string Make();
    [[nodiscard]] std::string MakeRun(UniqueFd& directory, std::string& name);
    [[nodiscard]] std::string Move(const UniqueFd& directory, uint64_t limit, KeptRun& run);
    [[nodiscard]] bool Remove(const std::string& name);
    [[nodiscard]] std::vector<KeptRun>::iterator NextToGo(std::vector<KeptRun>& runs) const;

    std::string m_logPath;
    std::string m_path;
    UniqueFd m_log;
    UniqueFd m_runs;
};
