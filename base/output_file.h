// Files that are replaced whole or not at all.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/unique_fd.h"

// A file that is replaced whole or not at all: it is written under a temporary name and renamed.
class OutputFile {
  public:
    OutputFile(std::string path, mode_t mode) : m_path(std::move(path)), m_mode(mode) {}
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    // Without Commit, nothing is left.
    ~OutputFile();

    // The three return false with errno.
    [[nodiscard]] bool Open();
    [[nodiscard]] bool Write(std::string_view text) { return WriteFully(m_fd.Get(), text); }
    [[nodiscard]] bool Commit();

    [[nodiscard]] const char* Path() const { return m_path.c_str(); }
    [[nodiscard]] int Get() const { return m_fd.Get(); }

  private:
    std::string m_path;
    std::string m_name;  // while it is written; empty otherwise
    mode_t m_mode;
    UniqueFd m_fd;
};
