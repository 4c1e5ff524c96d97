// The owner of one file descriptor: closes it when it goes away and keeps errno while doing so.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    [[nodiscard]] int Get() const { return m_fd; }
    [[nodiscard]] bool IsOpen() const { return m_fd >= 0; }
    [[nodiscard]] int Release() { return std::exchange(m_fd, -1); }

    void Reset(int fd = -1) {
        const int saved = errno;
        if (m_fd >= 0) close(m_fd);
        m_fd = fd;
        errno = saved;
    }

  private:
    int m_fd = -1;
};

// Moves a descriptor that the process keeps above 512, out of reach of a module that closes what it
// did not open. The same number, where the limit does not allow it. Keeps errno.
[[nodiscard]] inline int KeepHigh(int fd) {
    constexpr int kLowest = 513;
    const int saved = errno;
    const int high = fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, kLowest) : -1;
    if (high >= 0) close(fd);
    errno = saved;
    return high >= 0 ? high : fd;
}
