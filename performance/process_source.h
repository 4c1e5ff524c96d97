// The processes that used most between two samples; docs/performance-series.md has the format of
// the lines.
#pragma once

#include <dirent.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class ProcessSource {
  public:
    // Reads each process once: about 10 us of CPU for each of them.
    void Sample(int64_t now);
    [[nodiscard]] const std::string& Lines() const { return m_lines; }
    void AddNotes(std::vector<std::string>& notes) const;

  private:
    struct Process {
        int64_t pid = 0;
        uint64_t start = 0;     // ticks since the boot: a later process of this number has another
        uint64_t ticks = 0;     // of CPU, since it began
        uint64_t bytes = 0;     // read from and written to disks, since it began
        uint64_t cpu = 0;       // ticks since the sample before
        uint64_t io = 0;        // bytes since the sample before
        uint64_t resident = 0;  // bytes
        std::string_view Name() const { return {name, nameLength}; }
        char name[32];
        uint8_t nameLength = 0;
    };
    struct DirectoryCloser {
        void operator()(DIR* directory) const { closedir(directory); }
    };

    bool Read(const char* pid, Process& process);
    bool ReadIo(const char* pid, Process& process);
    void AddDifference(Process& process, size_t& before) const;
    void AddTop(const char* what, uint64_t Process::*use, int64_t period);

    std::unique_ptr<DIR, DirectoryCloser> m_directory;
    std::vector<Process> m_before;  // by number, as the kernel lists them
    std::vector<Process> m_now;
    std::vector<const Process*> m_order;
    std::string m_lines;
    int64_t m_last = 0;        // time of the sample before; 0: there was none
    uint64_t m_lastTicks = 0;  // its time since the boot
    int m_error = 0;
    bool m_isIoHidden = false;
};
