#include "daemon/notify.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "daemon/version.h"
#include "services/base/unique_fd.h"
#include "trace/debug.h"

namespace {

// An address that begins with "@" is not a file; a leading NUL stands for the sign then.
socklen_t FillAddress(sockaddr_un& address, std::string_view name) {
    if (name.size() >= sizeof(address.sun_path) || (name[0] != '/' && name[0] != '@')) return 0;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

bool Send(std::string_view name, std::string_view state) {
    sockaddr_un address{};
    const socklen_t length = FillAddress(address, name);
    if (length == 0) {
        errno = EINVAL;
        return false;
    }
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) return false;
    // The receiver may be busy at boot, and a lost word would count as a failed start; but nobody
    // may hold up a stop for ever.
    const timeval limit{5, 0};
    (void)setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    return sendto(socket.Get(), state.data(), state.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), length) >= 0;
}

void Notify(std::string_view state) {
    const char* name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0') return;
    if (Send(name, state)) return;
    Debug.Message("%s-MAIN: cannot send %.*s to %s (%s)\n", kTag, static_cast<int>(state.size()),
                  state.data(), name, std::strerror(errno));
}

}  // namespace

void NotifyReady() {
    Notify("READY=1");
}

void NotifyStopping() {
    static bool isTold = false;
    if (isTold) return;
    isTold = true;
    Notify("STOPPING=1");
}
