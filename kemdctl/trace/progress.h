// What is said while a large file is written: how far it is, on a terminal, and how large it got.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

class Progress {
  public:
    // Of a file with this name; `total` bytes are to be read for it, 0: not known.
    Progress(const std::string& path, uint64_t total, bool isQuiet);
    // So many bytes more were read or written.
    void Add(uint64_t bytes);
    // The file is there whole, and has this size.
    void Finish(uint64_t size);

  private:
    std::string m_path;
    uint64_t m_total;
    uint64_t m_done = 0;
    bool m_isQuiet;
    bool m_isShown;  // on a terminal
    std::chrono::steady_clock::time_point m_next;
};
