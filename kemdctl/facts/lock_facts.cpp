#include "kemdctl/facts/lock_facts.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "base/file_io.h"
#include "base/text.h"
#include "kemdctl/facts/process_facts.h"

#ifndef BTRFS_SUPER_MAGIC
#define BTRFS_SUPER_MAGIC 0x9123683E
#endif

namespace {

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

// On these file systems the table of locks shows another device than stat.
bool HasDeviceOfItsOwn(const char* path) {
    struct statfs fileSystem {};
    if (statfs(path, &fileSystem) != 0) return false;
    return fileSystem.f_type == BTRFS_SUPER_MAGIC || fileSystem.f_type == OVERLAYFS_SUPER_MAGIC;
}

// A line "1: FLOCK  ADVISORY  WRITE 1234 fd:01:5678 0 EOF". A waiting one has "->" after the
// number and does not hold the lock.
bool IsLockOf(const std::string& line, const struct stat& file, bool anyDevice, long& pid) {
    unsigned device[2] = {};
    unsigned long inode = 0;
    if (std::sscanf(line.c_str(), "%*d: FLOCK %*s %*s %ld %x:%x:%lu", &pid, &device[0], &device[1],
                    &inode) != 4) {
        return false;
    }
    const bool sameDevice = device[0] == major(file.st_dev) && device[1] == minor(file.st_dev);
    return inode == file.st_ino && (sameDevice || anyDevice);
}

void LookAtTable(const char* path, const struct stat& file, LockFacts& lock) {
    const auto table = ReadTextFile("/proc/locks", size_t{16} << 20);
    if (!table) return;
    lock.held = LockFacts::kFree;
    const bool anyDevice = HasDeviceOfItsOwn(path);
    std::string_view rest = *table;
    long pid = 0;
    while (!rest.empty()) {
        if (!IsLockOf(std::string(TakeLine(rest)), file, anyDevice, pid)) continue;
        lock.held = LockFacts::kHeld;
        lock.taker = static_cast<pid_t>(pid > 0 ? pid : 0);
    }
}

// Whether a descriptor of the process holds a lock on the file. Inside a container the table does
// not show a lock whose taker has ended and left it to a child; the descriptor's own list does.
bool HoldsLock(const std::string& process, const std::string& descriptor, const struct stat& file) {
    // First: stat on a descriptor of a dead network mount never returns.
    const auto info = ReadTextFile(process + "/fdinfo/" + descriptor);
    if (!info || info->find("FLOCK") == std::string::npos) return false;
    struct stat open {};
    return stat((process + "/fd/" + descriptor).c_str(), &open) == 0 &&
           open.st_dev == file.st_dev && open.st_ino == file.st_ino;
}

void LookAtProcess(pid_t pid, const struct stat& file, LockFacts& lock) {
    const std::string process = "/proc/" + std::to_string(pid);
    const Directory descriptors(opendir((process + "/fd").c_str()), closedir);
    if (!descriptors) {
        if (errno != ENOENT && errno != ESRCH) lock.hasSeenAll = false;
        return;
    }
    while (const dirent* entry = readdir(descriptors.get())) {
        if (!HoldsLock(process, entry->d_name, file)) continue;
        lock.held = LockFacts::kHeld;
        lock.holders.push_back(pid);
        return;
    }
}

}  // namespace

LockFacts ReadLock(const char* path) {
    LockFacts lock;
    struct stat file {};
    if (stat(path, &file) != 0) {
        lock.error = errno == ENOENT ? 0 : errno;
        if (lock.error == 0) lock.held = LockFacts::kFree;
        return lock;
    }
    lock.exists = true;
    const auto content = ReadTextFile(path, 255);
    lock.error = content ? 0 : errno;
    lock.content = content.value_or("");
    LookAtTable(path, file, lock);
    lock.hasSeenAll = true;
    for (const pid_t pid : ListProcesses()) LookAtProcess(pid, file, lock);
    return lock;
}
