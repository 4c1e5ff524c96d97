#include "network/name_space.h"

#include <sched.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <thread>

namespace {

// Entering needs rights, also for the name space that the caller is in.
bool IsHere(int nameSpace) {
    struct stat wanted {};
    struct stat own {};
    return fstat(nameSpace, &wanted) == 0 && stat("/proc/thread-self/ns/net", &own) == 0 &&
           wanted.st_dev == own.st_dev && wanted.st_ino == own.st_ino;
}

// In a thread of its own, beyond which an exception would end the process.
int EnterAndRun(int nameSpace, const std::function<int()>& work) try {
    if (setns(nameSpace, CLONE_NEWNET) != 0) return errno;
    return work();
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

}  // namespace

int RunInNameSpace(int nameSpace, const std::function<int()>& work) {
    if (nameSpace < 0 || IsHere(nameSpace)) return work();
    int error = 0;
    try {
        // A thread of its own: one that had to go back could fail to.
        std::thread([&] { error = EnterAndRun(nameSpace, work); }).join();
    } catch (const std::system_error&) {
        return EAGAIN;
    }
    return error;
}
