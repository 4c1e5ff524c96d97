// The program through which a person reads long output on a terminal.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

// KEMDCTL_PAGER, PAGER, or less if there is one; empty when nothing of it is to be used.
[[nodiscard]] std::string ChoosePager();

class Pager {
  public:
    Pager() = default;
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;
    // Waits until the person has read enough.
    ~Pager();

    // Starts this command of the shell; it shows on standard output what is written to Get(). False
    // with errno.
    [[nodiscard]] bool Start(const std::string& command);
    [[nodiscard]] bool IsRunning() const { return m_process > 0; }
    [[nodiscard]] int Get() const { return m_input.Get(); }

  private:
    UniqueFd m_input;
    pid_t m_process = 0;
};
