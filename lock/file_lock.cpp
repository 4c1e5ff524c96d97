#include "lock/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr int kSharingViolation = 32;
constexpr useconds_t kRetryPause = 100'000;
constexpr int kMaxRestarts = 10;  // for the case that something keeps replacing the file

// The text before the last slash that is not the final character; the whole path when that slash is
// the first character or there is none.
std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.size() < 2 ? path.npos : path.rfind('/', path.size() - 2);
    return slash == path.npos || slash == 0 ? path : path.substr(0, slash);
}

const char* BoolText(bool value) {
    return value ? "true" : "false";
}

bool IsOwnLink(const char* path) {
    struct stat status {};
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid == geteuid();
}

// An errno number for a file that another user may have put there, to have it overwritten or to
// block us; 0 when it may be used. A directory passes: it cannot be opened for writing.
int Refuse(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return errno;
    if (S_ISREG(status.st_mode)) return status.st_nlink > 1 ? EMLINK : 0;
    return S_ISDIR(status.st_mode) ? 0 : EINVAL;
}

}  // namespace

CFileLock::~CFileLock() {
    Unlock();
    m_owner.clear();
    m_isReleased = true;
}

bool CFileLock::Lock(const char* basePath, const char* ownerName, int32_t waitMs) {
    if (basePath == nullptr || *basePath == '\0') return false;
    try {
        const std::string owner = ownerName != nullptr ? ownerName : "";
        return LockFile(basePath, owner + "#" + std::to_string(getpid()), waitMs);
    } catch (const std::exception&) {  // no memory
        if (m_fd >= 0) CloseFile();    // not removed: it may be another instance's
        m_lastError = ENOMEM;
        return false;
    }
}

bool CFileLock::LockFile(const std::string& basePath, const std::string& content, int32_t waitMs) {
    TRACE(5, "\nCFileLock           :   apply file lock using file %s...", basePath.c_str());
    const std::string lockFileName = basePath + ".lock";
    m_path.Assign(lockFileName);
    TRACE(3, "\nCFileLock::Lock     : LockFileName.c_str() = %s\n", lockFileName.c_str());
    const std::string lockFileDir = DirectoryOf(lockFileName);
    TRACE(3, "\nCFileLock::Lock     : LockFileDir.c_str() = %s\n", lockFileDir.c_str());
    if (lockFileDir[0] != '/' || !CreateDirectories(lockFileDir)) {
        // Required: the error shown is the one of an earlier operation.
        TRACE(1,
              "\nCFileLock           : ## ERROR! Failed to open/create lock directory %s "
              "(LastError = 0x%08X)",
              lockFileDir.c_str(), static_cast<unsigned>(m_lastError));
        return false;
    }
    if (m_fd >= 0) CloseFile();
    const int32_t retries = waitMs / 100;
    TRACE(3, "\nCFileLock::Lock     : nrRetries = %d\n", retries);

    Created created = Created::kReplaced;
    for (int restarts = 0; created == Created::kReplaced && restarts <= kMaxRestarts; ++restarts) {
        created = IsFree(retries) ? CreateAndHold(content) : Created::kTaken;
    }
    if (created == Created::kReplaced) m_lastError = EWOULDBLOCK;
    if (created == Created::kTaken || created == Created::kReplaced) ReadHolder();
    return created == Created::kHeld;
}

bool CFileLock::IsFree(int32_t retries) {
    struct stat status {};
    if (stat(m_path.Get(), &status) == 0) {
        TRACE(3, "\nCFileLock::Lock     : lockfile %s EXISTS!\n", m_path.Get());
        return ProbeFile(retries);
    }
    TRACE(3, "\nCFileLock::Lock     : lockfile %s does NOT exist!\n", m_path.Get());
    TRACE(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", BoolText(true));
    return true;
}

bool CFileLock::CreateDirectories(const std::string& directory) {
    // A longer chain is cut: its last part is not made, and opening the file fails.
    constexpr size_t kProcessed = 259;
    const auto make = [](const std::string& path) {
        return mkdir(path.c_str(), 0711) == 0 || errno == EEXIST;
    };
    const size_t end = std::min(directory.size(), kProcessed + 1);
    for (size_t i = 1; i < end; ++i) {
        if (directory[i] == '/' && !make(directory.substr(0, i))) return false;
    }
    return end < directory.size() || make(directory);
}

bool CFileLock::ProbeFile(int32_t retries) {
    if (!OpenFile(O_RDONLY)) {
        TRACE(3, "\nCFileLock::Lock     : Could NOT open lockfile %s\n", m_path.Get());
        TRACE(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", BoolText(false));
        return false;
    }
    TRACE(3, "\nCFileLock::Lock     : Successfully opened lockfile %s\n", m_path.Get());
    TRACE(3, "\nCFileLock::Lock     : Trying to lock lockfile %s\n", m_path.Get());
    const bool lockable = TryLockRepeatedly(retries);
    CloseFile();
    TRACE(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", BoolText(lockable));
    return lockable;
}

bool CFileLock::TryLock() {
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        m_lastError = errno;
        return false;
    }
    TRACE(3, "\nCFileLock::Lock     : Successfully locked lockfile %s\n", m_path.Get());
    if (flock(m_fd, LOCK_UN) != 0) m_lastError = errno;
    return true;
}

// Required: only error 32 is tried again. Linux reports a held lock as EWOULDBLOCK, so a running
// instance is found at the first attempt, whatever the wait.
bool CFileLock::TryLockRepeatedly(int32_t retries) {
    for (;;) {
        if (TryLock()) return true;
        if (m_lastError != kSharingViolation) break;
        TRACE(3,
              "\nCFileLock::Lock     : Error Sharing Violation while trying to lock lockfile %s\n",
              m_path.Get());
        --retries;
        usleep(kRetryPause);
        if (retries < 1) return false;
    }
    TRACE(3, "\nCFileLock::Lock     : Could NOT lock lockfile %s\n", m_path.Get());
    return false;
}

// Does not wait: several instances may have passed the probe, and one that waited here would go on
// with a file that the first one removes at its end.
bool CFileLock::TakeLock() {
    m_isLocked = flock(m_fd, LOCK_EX | LOCK_NB) == 0;
    if (!m_isLocked) {
        m_lastError = errno;
        if (m_lastError == EWOULDBLOCK) return false;
        // Required: no other failure keeps the daemon from running.
        m_isLocked = true;
        (void)flock(m_fd, LOCK_EX);
    }
    return true;
}

CFileLock::Created CFileLock::CreateAndHold(const std::string& content) {
    if (!OpenFile(O_RDWR | O_CREAT)) return Created::kFailed;
    Created created = Created::kTaken;
    if (TakeLock()) created = IsAtPath() ? WriteContent(content) : Created::kReplaced;
    if (created != Created::kHeld) CloseFile();
    return created;
}

// Only the holder empties the file: without the lock it may be another instance's.
CFileLock::Created CFileLock::WriteContent(const std::string& content) {
    if (ftruncate(m_fd, 0) != 0) {
        m_lastError = errno;
        return Created::kFailed;
    }
    m_lastError = 0;
    if (!WriteFully(m_fd, content)) m_lastError = errno;
    (void)fsync(m_fd);
    return Created::kHeld;
}

void CFileLock::ReadHolder() {
    if (!OpenFile(O_RDONLY)) return;
    std::array<char, 255> text{};
    const ReadResult got = ReadFully(m_fd, text.data(), text.size());
    if (got.error != 0) m_lastError = got.error;
    m_owner.assign(text.data(), got.count);
    CloseFile();
}

// Close-on-exec: a module's child process must not keep the lock.
bool CFileLock::OpenFile(int flags) {
    flags |= O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file(open(m_path.Get(), flags | O_NOFOLLOW, 0644));
    if (!file.IsOpen() && errno == ELOOP && IsOwnLink(m_path.Get())) {
        file.Reset(open(m_path.Get(), flags, 0644));
    }
    const int error = file.IsOpen() ? Refuse(file.Get()) : errno;
    if (error != 0) {
        m_lastError = error;
        return false;
    }
    m_fd = KeepHigh(file.Release());
    m_isOpen = true;
    return true;
}

// Whether the path still leads to the open file: its previous holder may have removed it.
bool CFileLock::IsAtPath() const {
    struct stat open {};
    struct stat named {};
    return fstat(m_fd, &open) == 0 && stat(m_path.Get(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

void CFileLock::CloseFile() {
    if (m_isLocked) {
        (void)fsync(m_fd);
        (void)flock(m_fd, LOCK_UN);
    }
    close(m_fd);
    m_fd = -1;
    m_isOpen = false;
    m_isLocked = false;
}

void CFileLock::Unlock() {
    if (m_fd < 0) return;
    TRACE(5, "\nCFileLock           :   release file lock using file %s", m_path.Get());
    // Only the holder has an open file here, so a second instance never removes the first one's.
    // Remove before unlocking, or the next instance could lock the old file and lose it.
    unlink(m_path.Get());
    CloseFile();
}
