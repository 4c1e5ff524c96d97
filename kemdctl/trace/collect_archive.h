// A tar file that goes through the system's gzip, and the other programs that are asked for it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

// What a program writes to standard output and standard error, up to a limit of size and time.
// It is found in PATH and gets no shell. Nothing when it cannot be started.
[[nodiscard]] std::string RunProgram(const std::vector<const char*>& arguments);

class TarGzip {
  public:
    using Put = std::function<bool(std::string_view)>;

    TarGzip() = default;
    TarGzip(const TarGzip&) = delete;
    TarGzip& operator=(const TarGzip&) = delete;
    ~TarGzip();

    // Starts gzip, which writes to `output`. The three return false when it is not there or ends.
    [[nodiscard]] bool Start(int output);
    // `produce` hands on exactly `size` bytes; what is missing becomes zeros, what is more is left
    // out. The name has at most 99 bytes.
    [[nodiscard]] bool Add(const std::string& name, uint64_t size,
                           const std::function<bool(const Put&)>& produce);
    // Waits for gzip.
    [[nodiscard]] bool Finish();

  private:
    UniqueFd m_pipe;
    pid_t m_gzip = -1;
};
