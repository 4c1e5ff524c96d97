// The threads of the process as the kernel lists them: a module's code must stay while one of its
// threads runs. Initial thread only.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

using ThreadIds = std::vector<pid_t>;

// Ascending. Empty when they cannot be listed; otherwise the caller is among them.
ThreadIds LiveThreads();

// What is in `threads` and not in `others`; both ascending.
ThreadIds Without(const ThreadIds& threads, const ThreadIds& others);

// Waits, for a second at most, until none of the threads is listed any more: one that was joined
// stays in the list for a moment, and one that is on its way out needs no more than that.
void AwaitEnd(const ThreadIds& threads);

// The name that a thread gave itself; the program's when it gave none.
std::string ThreadName(pid_t thread);
