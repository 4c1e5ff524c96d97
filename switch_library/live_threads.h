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

    // The next thread; 0: there is none any more; -1: they cannot be listed.
    [[nodiscard]] pid_t Next();

  private:
    UniqueFd m_directory;
    alignas(dirent64) std::array<char, 4096> m_entries;
    ssize_t m_size = 0;
    ssize_t m_position = 0;
};

// Ascending. Empty when they cannot be listed; otherwise the caller is among them.
ThreadIds LiveThreads();

// What is in `threads` and not in `others`; both ascending.
ThreadIds Without(const ThreadIds& threads, const ThreadIds& others);

// Waits, for a second at most, until only the `known` threads are listed: one that was joined stays
// in the list for a moment, and one that is on its way out needs no more than that.
void AwaitOnly(const ThreadIds& known);

// The name that a thread gave itself; the program's when it gave none.
std::array<char, 16> ThreadName(pid_t thread);
