#include "services/registry/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

#include "base/file_io.h"
#include "base/paths.h"
#include "trace/debug.h"

bool IsNoRegistryFile(int error) {
    constexpr int kReasons[] = {ENOENT, ENOTDIR, ELOOP, EISDIR, EINVAL, ENXIO, ENODEV};
    return std::find(std::begin(kReasons), std::end(kReasons), error) != std::end(kReasons);
}

ParsedRegistry LoadRegistryFile(const char* path) {
    if (path == nullptr || *path == '\0') {
        TRACE(1, "CRegistry: ERROR: Empty file path");
        return {std::nullopt, ENOENT, true};
    }
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) {
        const int error = errno;
        TRACE(1, "CRegistry: WARNING: Could not open \"%s\"\n", path);
        return {std::nullopt, error, IsNoRegistryFile(error)};
    }
    struct stat status {};
    if (fstat(file.Get(), &status) == 0 && status.st_size == 0) {
        TRACE(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path);
        return {std::nullopt, ENODATA, true};
    }
    LineReader lines(file.Get());
    ParsedRegistry parsed = ParseRegistry(lines);
    if (parsed.isNone) {
        TRACE(1,
              "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this "
              "file\n",
              path);
    }
    return parsed;
}

int RestoreRegistryFile(const char* path, CRegistryNode& node) {
    ParsedRegistry parsed = LoadRegistryFile(path);
    if (parsed.error != 0) return parsed.error;
    const auto replaced = LockedNode(node).Merge(std::move(*parsed.entries));
    return 0;
}

namespace {

constexpr const char* kNewFile = "/etc/orvmon/registry.new";
constexpr const char* kKeptFile = "/etc/orvmon/registry.old.kept";

// Held during a whole save, because other processes save too. Its file is never renamed, and only
// root can open it: anyone who could open it could keep root from saving.
class SaveLock {
  public:
    SaveLock() : m_file(OpenRegularFile(kRegistryLockFile, O_RDWR | O_CREAT | O_NOFOLLOW, 0600)) {}
    // Explicitly: a child that was forked meanwhile may still hold the descriptor.
    ~SaveLock() {
        if (m_file.IsOpen()) (void)flock(m_file.Get(), LOCK_UN);
    }
    SaveLock(const SaveLock&) = delete;
    SaveLock& operator=(const SaveLock&) = delete;

    // Waits up to five seconds. False with errno.
    bool Take() {
        constexpr int kAttempts = 500;
        constexpr useconds_t kPause = 10'000;
        if (!m_file.IsOpen()) return false;
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            // Any other error: the file system has no locks, so no process holds one.
            if (flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;
            usleep(kPause);
        }
        errno = EBUSY;
        return false;
    }

  private:
    UniqueFd m_file;
};

// Always a new file: nothing is written into one that was left or planted there.
UniqueFd OpenNewFile() {
    if (unlink(kNewFile) != 0 && errno != ENOENT) return {};
    return OpenRegularFile(kNewFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
}

bool WriteNewFile(int fd, CRegistryNode& root) try {
    // The mode is set before the file gets its final name, so readers never see another one.
    const auto write = [fd](std::string_view text) {
        if (!WriteFully(fd, text)) return false;
        // Starts writing to disk while the next fragment is made. Only fsync reports errors.
        (void)sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
        return true;
    };
    return WriteRegistry(root, write) && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
} catch (const std::exception&) {
    errno = ENOMEM;
    return false;
}

bool Exchange() {
    return renameat2(AT_FDCWD, kNewFile, AT_FDCWD, kRegistryFile, RENAME_EXCHANGE) == 0;
}

// For file systems that cannot exchange two names. Between the renames there is no live file, and a
// start would load the previous generation, which is then the former live file. The generation
// before that is kept aside until the end.
bool RenameBoth() {
    const bool hasOld = rename(kRegistryOldFile, kKeptFile) == 0;
    if (rename(kRegistryFile, kRegistryOldFile) == 0) {
        if (rename(kNewFile, kRegistryFile) == 0) {
            (void)unlink(kKeptFile);
            return true;
        }
        // If this fails too, the previous generation is the only copy of the live store: keep it.
        const int error = errno;
        if (rename(kRegistryOldFile, kRegistryFile) != 0) return false;
        errno = error;
    }
    const int error = errno;
    if (hasOld) (void)rename(kKeptFile, kRegistryOldFile);
    errno = error;
    return false;
}

// The live file becomes the previous generation, and the new file the live one. Exchanging them
// first leaves no moment without a live file, and a failure after it can be undone.
bool MoveIntoPlace() {
    struct stat live {};
    if (stat(kRegistryFile, &live) != 0 && errno != ENOENT) return false;
    // Nothing, or nothing worth keeping.
    if (!S_ISREG(live.st_mode) || live.st_size == 0) return rename(kNewFile, kRegistryFile) == 0;
    if (!Exchange()) return (errno == EINVAL || errno == ENOSYS) && RenameBoth();
    if (rename(kNewFile, kRegistryOldFile) == 0) return true;
    const int error = errno;
    // If the exchange cannot be undone, the tree is saved, with an older previous generation.
    if (!Exchange()) return true;
    errno = error;
    return false;
}

bool SyncDirectory() {
    const UniqueFd directory(open(kRegistryDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // EINVAL: a file system that writes names to disk by itself.
    return directory.IsOpen() && (fsync(directory.Get()) == 0 || errno == EINVAL);
}

const char* Fail() {
    const int error = errno;
    TRACE(1, "CRegistry: ERROR: Cannot save \"%s\": %s\n", kRegistryFile, std::strerror(error));
    errno = error;
    return kRegistryFile;
}

}  // namespace

const char* SaveRegistryFile(CRegistryNode& root) {
    SaveLock lock;
    if (!lock.Take()) {
        const int error = errno;
        TRACE(1, "CRegistry: ERROR: Cannot lock \"%s\": %s\n", kRegistryLockFile,
              std::strerror(error));
        errno = error;
        return kRegistryLockFile;
    }
    const UniqueFd file = OpenNewFile();
    if (!file.IsOpen()) {
        const int error = errno;
        TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", kNewFile);
        errno = error;
        return kNewFile;
    }
    if (!WriteNewFile(file.Get(), root) || !MoveIntoPlace()) {
        const int error = errno;
        // Without a live file the new one may be the only copy.
        if (access(kRegistryFile, F_OK) == 0) (void)unlink(kNewFile);
        errno = error;
        return Fail();
    }
    if (!SyncDirectory()) return Fail();
    TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", kNewFile, kRegistryFile);
    return nullptr;
}
