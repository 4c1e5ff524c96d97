// Who holds the daemon's lock, found out without touching the lock: by the system's table of locks,
// and, with root's rights, by the processes that have the locked file open.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct LockFacts {
    enum Held { kFree, kHeld, kUnknown };

    bool exists = false;
    int error = 0;        // errno when the file or its content cannot be read; 0: all is well
    std::string content;  // who wrote itself into the file, "kemd#1234"
    Held held = kUnknown;
    // The process that took the lock, as the table shows it; 0: not shown. A daemon in the
    // background was given the lock by its parent, which has ended.
    pid_t taker = 0;
    // The processes through which the lock is held; empty when this may not be seen.
    std::vector<pid_t> holders;
    bool hasSeenAll = false;  // whether the open files of every process could be looked at
};

LockFacts ReadLock(const char* path);
