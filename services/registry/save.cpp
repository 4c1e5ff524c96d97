#include "services/registry/save.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "services/base/regular_file.h"
#include "services/registry/file_text.h"
#include "services/registry/store.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDirectory = "/etc/orvmon";
constexpr const char* kNewFile = "/etc/orvmon/registry.new";

bool IsFileOf(const char* path, int fd) {
    struct stat named {};
    struct stat open {};
    return stat(path, &named) == 0 && fstat(fd, &open) == 0 && named.st_dev == open.st_dev &&
           named.st_ino == open.st_ino;
}

// Another process may be saving: its lock on the new file ends when the file has its final name.
UniqueFd OpenNewFile() {
    constexpr int kAttempts = 500;
    constexpr useconds_t kPause = 10'000;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        UniqueFd file = OpenRegularFile(kNewFile, O_WRONLY | O_CREAT | O_NOFOLLOW, 0600);
        if (!file.IsOpen()) return {};
        if (flock(file.Get(), LOCK_EX | LOCK_NB) == 0) {
            if (IsFileOf(kNewFile, file.Get())) return file;
        } else if (errno != EWOULDBLOCK) {
            return {};
        } else {
            usleep(kPause);
        }
    }
    errno = EBUSY;
    return {};
}

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

bool WriteNewFile(int fd, CRegistryNode& root) try {
    // The mode is set before the file has its final name: nobody finds it without.
    return ftruncate(fd, 0) == 0 &&
           WriteRegistry(root, [fd](std::string_view text) { return WriteAll(fd, text); }) &&
           fchmod(fd, 0644) == 0 && fsync(fd) == 0;
} catch (const std::exception&) {
    errno = ENOMEM;
    return false;
}

bool Exchange() {
    return renameat2(AT_FDCWD, kNewFile, AT_FDCWD, kRegistryFile, RENAME_EXCHANGE) == 0;
}

// For file systems that cannot exchange two names. In between there is no live file; the previous
// generation, which the next start then takes, is the one that was live.
bool RenameBoth() {
    if (rename(kRegistryFile, kRegistryOldFile) != 0) return false;
    if (rename(kNewFile, kRegistryFile) == 0) return true;
    const int error = errno;
    (void)rename(kRegistryOldFile, kRegistryFile);
    errno = error;
    return false;
}

// The live file becomes the previous generation, the new file the live one. An exchange first: no
// moment without a live file, and a failure behind it can be taken back.
bool MoveIntoPlace() {
    struct stat live {};
    if (stat(kRegistryFile, &live) != 0 && errno != ENOENT) return false;
    // Nothing, or nothing worth keeping.
    if (!S_ISREG(live.st_mode) || live.st_size == 0) return rename(kNewFile, kRegistryFile) == 0;
    if (!Exchange()) return (errno == EINVAL || errno == ENOSYS) && RenameBoth();
    if (rename(kNewFile, kRegistryOldFile) == 0) return true;
    const int error = errno;
    // When not even this works, the tree is saved all the same, with an older previous generation.
    if (!Exchange()) return true;
    errno = error;
    return false;
}

bool SyncDirectory() {
    const UniqueFd directory(open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.IsOpen() && fsync(directory.Get()) == 0;
}

bool Fail() {
    const int error = errno;
    TRACE(1, "CRegistry: ERROR: Cannot save \"%s\": %s\n", kRegistryFile, std::strerror(error));
    errno = error;
    return false;
}

}  // namespace

bool SaveRegistryFile(CRegistryNode& root) {
    // Open until the end: whoever else saves waits for its lock.
    const UniqueFd file = OpenNewFile();
    if (!file.IsOpen()) {
        const int error = errno;
        TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", kNewFile);
        errno = error;
        return false;
    }
    if (!WriteNewFile(file.Get(), root) || !MoveIntoPlace()) {
        const int error = errno;
        unlink(kNewFile);
        errno = error;
        return Fail();
    }
    if (!SyncDirectory()) return Fail();
    TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", kNewFile, kRegistryFile);
    return true;
}
