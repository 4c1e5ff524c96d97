// Which process holds the daemon's lock, found without touching the lock: from the system's table
// of locks and, as root, from the processes that have the locked file open.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct LockFacts {
    enum Held { kFree, kHeld, kUnknown };

    bool exists = false;
    int error = 0;        // errno when the file or its content cannot be read; 0: all is well
    std::string content;  // the process that wrote it, "kemd#1234"
    Held held = kUnknown;
    // The process that took the lock, as the table shows it; 0: not shown. A daemon in the
    // background has the lock from its parent, which has ended.
    pid_t taker = 0;
    // The processes that hold the lock; empty when this may not be seen.
    std::vector<pid_t> holders;
    bool hasSeenAll = false;  // whether the open files of every process could be read
};

LockFacts ReadLock(const char* path);
