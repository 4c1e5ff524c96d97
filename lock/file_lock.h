// The lock file that prevents a second instance: an advisory `flock` on "<base path>.lock", whose
// content names the owner ("kemd#4711").
//
// Single-threaded use. The lock belongs to the open file, so a forked child keeps it; the
// destructor of the object that holds the lock removes the file. Results are bools, nothing throws.
// If several instances start at once, one gets the lock; the others fail and change nothing. The
// directory may be writable by all: only a regular file with one name is ever locked or written,
// and a symbolic link is followed only if the caller owns it.
#pragma once

#include <cstdint>
#include <string>

#include "base/fixed_string.h"

class CFileLock {
  public:
    CFileLock() = default;
    ~CFileLock();
    CFileLock(const CFileLock&) = delete;
    CFileLock& operator=(const CFileLock&) = delete;

    // Takes the lock for `ownerName` (may be null). Makes missing directories. A lock that another
    // instance holds fails at once, whatever `waitMs` is.
    [[nodiscard]] bool Lock(const char* basePath, const char* ownerName, int32_t waitMs);

    // errno of the last failed call on the lock file, 0 after a success, ENOMEM without memory. A
    // directory that is refused or cannot be made leaves it unchanged.
    [[nodiscard]] int32_t LastError() const { return m_lastError; }
    // Of the held lock file; -1 when none is held. A forked child may close its copy.
    [[nodiscard]] int32_t Descriptor() const { return m_fd; }
    // After a failed Lock: what the other instance's lock file says, at most 255 bytes.
    [[nodiscard]] const std::string& Owner() const { return m_owner; }

  private:
    static constexpr size_t kPathLength = 260;

    enum class Created { kHeld, kTaken, kReplaced, kFailed };

    bool LockFile(const std::string& basePath, const std::string& content, int32_t waitMs);
    bool CreateDirectories(const std::string& directory);
    bool IsFree(int32_t retries);
    bool ProbeFile(int32_t retries);
    bool TryLock();
    bool TryLockRepeatedly(int32_t retries);
    bool TakeLock();
    Created CreateAndHold(const std::string& content);
    Created WriteContent(const std::string& content);
    void ReadHolder();
    bool OpenFile(int flags);
    [[nodiscard]] bool IsAtPath() const;
    void CloseFile();
    void Unlock();

    int32_t m_fd = -1;          // the destructor closes it
    bool m_isOpen = false;      // m_fd is open
    bool m_isLocked = false;    // this object placed the lock
    bool m_isReleased = false;  // readable in a core file
    FixedString<kPathLength + 1> m_path;
    int32_t m_lastError = 0;
    std::string m_owner;
};
