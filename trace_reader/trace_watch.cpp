#include "trace_reader/trace_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <memory>

namespace {

bool Watch(int fd, const std::string& file) {
    const size_t slash = file.rfind('/');
    const std::string directory = slash == file.npos ? "." : file.substr(0, slash + 1);
    return inotify_add_watch(fd, directory.c_str(),
                             IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_DELETE) >= 0;
}

}  // namespace

TraceWatch::TraceWatch() : m_fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

// Also where the name leads to: a link is not what is written.
bool TraceWatch::Add(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), free);
    return Watch(m_fd.Get(), path) && (!real || Watch(m_fd.Get(), real.get()));
}

bool TraceWatch::Wait(int output) {
    // After a call a ring's writer makes no other for ten milliseconds, whatever it writes. It may
    // also have been stopped within a record.
    static constexpr std::array<int, 3> kMilliseconds = {-1, 1000, 10};
    std::array<pollfd, 2> events = {{{m_fd.Get(), POLLIN, 0}, {output, 0, 0}}};
    const int count = poll(events.data(), events.size(), kMilliseconds[m_looks]);
    if (count == 0) --m_looks;
    if (count > 0 && (events[1].revents & (POLLERR | POLLNVAL)) != 0) return false;
    // What exactly happened does not matter.
    std::array<char, 4096> names{};
    while (count > 0 && read(m_fd.Get(), names.data(), names.size()) > 0) m_looks = 2;
    return true;
}
