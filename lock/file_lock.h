// The lock file that keeps a second instance away: an advisory `flock` on "<base path>.lock", whose
// content names the owner ("kemd#4711").
//
// Single-threaded use. The lock belongs to the open file, so a child made by fork keeps it; the
// file is removed when the object that holds it goes away. Results are bools, nothing throws. Of
// several instances that start at once one gets the lock; the others fail and change nothing. The
// directory may be open to all: only a regular file with one name is ever locked or written, and
// symbolic links are followed only when they are the caller's own.
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

    // Takes the lock for `ownerName` (may be null). The directory chain is made when it is missing.
    // `waitMs` has no effect on a lock that another instance holds: that fails at once.
    [[nodiscard]] bool Lock(const char* basePath, const char* ownerName, int32_t waitMs);

    // errno of the call on the lock file that failed last, 0 after a success, ENOMEM when there was
    // no memory. A refused or failing directory leaves it as it was.
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
