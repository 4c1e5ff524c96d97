// The threads of the process as the kernel lists them: a module's code must stay while one of its
// threads runs. Only LiveThreads allocates, so that a stop needs no memory. Any thread may call.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <array>
#include <vector>

#include "base/unique_fd.h"

using ThreadIds = std::vector<pid_t>;

// Lists the threads one by one.
class ThreadList {
  public:
    ThreadList();

    // The next thread; 0: no more; -1: they cannot be listed.
    [[nodiscard]] pid_t Next();

  private:
    UniqueFd m_directory;
    alignas(dirent64) std::array<char, 4096> m_entries;
    ssize_t m_size = 0;
    ssize_t m_position = 0;
};

// Ascending. Empty when they cannot be listed; otherwise the caller is among them.
ThreadIds LiveThreads();

// Those of `threads` that are not in `others`; both ascending.
ThreadIds Without(const ThreadIds& threads, const ThreadIds& others);

// Waits at most a second until only the `known` threads are listed: a thread that was joined or is
// about to end stays in the list for a moment.
void AwaitOnly(const ThreadIds& known);

// The name that a thread gave itself; the program's when it gave none.
std::array<char, 16> ThreadName(pid_t thread);
