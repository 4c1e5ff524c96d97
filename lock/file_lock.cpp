#include "lock/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "services/base/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr int kSharingViolation = 32;
constexpr useconds_t kRetryPause = 100'000;

// The text before the last slash that is not the final character; the whole path when that slash is
// the first character or there is none.
std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.size() < 2 ? path.npos : path.rfind('/', path.size() - 2);
    return slash == path.npos || slash == 0 ? path : path.substr(0, slash);
}

const char* BoolText(bool value) {
    return value ? "true" : "false";
}

}  // namespace

CFileLock::~CFileLock() {
    Unlock();
    m_owner.clear();
    m_isReleased = true;
}

bool CFileLock::Lock(const char* basePath, const char* ownerName, int32_t waitMs) {
    if (basePath == nullptr || *basePath == '\0') return false;
    TRACE(5, "\nCFileLock           :   apply file lock using file %s...", basePath);
    const std::string lockFileName = std::string(basePath) + ".lock";
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

    struct stat status {};
    if (stat(m_path.Get(), &status) == 0) {
        TRACE(3, "\nCFileLock::Lock     : lockfile %s EXISTS!\n", m_path.Get());
        if (!ProbeFile(retries)) {
            ReadHolder();
            return false;
        }
    } else {
        TRACE(3, "\nCFileLock::Lock     : lockfile %s does NOT exist!\n", m_path.Get());
        TRACE(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", BoolText(true));
    }
    return CreateAndHold(ownerName);
}

bool CFileLock::CreateDirectories(const std::string& directory) {
    // A longer chain is cut: its last part is not made, and opening the file says so.
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
    errno = 0;
    m_fd = OpenToRead();
    if (m_fd < 0) {
        m_lastError = errno;
        TRACE(3, "\nCFileLock::Lock     : Could NOT open lockfile %s\n", m_path.Get());
        TRACE(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", BoolText(false));
        return false;
    }
    m_isOpen = true;
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

bool CFileLock::CreateAndHold(const char* ownerName) {
    errno = 0;
    const int fd = open(m_path.Get(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        m_lastError = errno;
        return false;
    }
    SetCloseOnExec(fd);  // a module's child process must not keep the lock
    m_isLocked = true;
    (void)flock(fd, LOCK_EX);
    m_fd = fd;
    m_isOpen = true;
    (void)flock(m_fd, LOCK_EX | LOCK_NB);  // an error would not outlive the next line
    m_lastError = 0;
    const std::string content =
        std::string(ownerName != nullptr ? ownerName : "") + "#" + std::to_string(getpid());
    errno = 0;
    if (write(m_fd, content.data(), content.size()) < 0) m_lastError = errno;
    (void)fsync(m_fd);
    return true;
}

void CFileLock::ReadHolder() {
    errno = 0;
    m_fd = OpenToRead();
    if (m_fd < 0) {
        m_lastError = errno;
        return;
    }
    m_isOpen = true;
    std::array<char, 255> text{};
    ssize_t length = read(m_fd, text.data(), text.size());
    if (length < 0) {
        m_lastError = errno;
        length = 0;
    }
    m_owner.assign(text.data(), static_cast<size_t>(length));
    CloseFile();
}

int CFileLock::OpenToRead() {
    // Opening a FIFO that somebody put there would wait for ever.
    struct stat status {};
    const bool fifo = stat(m_path.Get(), &status) == 0 && S_ISFIFO(status.st_mode);
    const int fd = open(m_path.Get(), O_RDONLY | (fifo ? O_NONBLOCK : 0), 0644);
    SetCloseOnExec(fd);
    return fd;
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
    CloseFile();
    // Only the holder comes here: a second instance never removes the first one's file.
    unlink(m_path.Get());
}
