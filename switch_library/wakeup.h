// Wakes a thread that polls. A pipe, because poll also returns when its other end goes away: a
// module that closes all descriptors of the process wakes the thread, which otherwise slept for
// ever on descriptors that nobody can write to any more.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>

#include "base/unique_fd.h"

class Wakeup {
  public:
    // False, and errno.
    bool Open() {
        std::array<int, 2> ends = {-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return false;
        m_read.Reset(KeepHigh(ends[0]));
        m_write.Reset(KeepHigh(ends[1]));
        return true;
    }
    void Close() {
        m_read.Reset();
        m_write.Reset();
    }
    // Any thread. A pipe that is full wakes as well.
    void Wake() const { (void)!write(m_write.Get(), "", 1); }
    [[nodiscard]] pollfd Polled() const { return {m_read.Get(), POLLIN, 0}; }
    // Takes what poll has returned; false when the descriptors were closed.
    [[nodiscard]] bool Take(short events) const {
        std::array<char, 64> bytes{};
        if ((events & POLLIN) != 0) (void)!read(m_read.Get(), bytes.data(), bytes.size());
        return (events & (POLLHUP | POLLERR | POLLNVAL)) == 0;
    }

  private:
    UniqueFd m_read;
    UniqueFd m_write;
};
