#include "base/notify_socket.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/unique_fd.h"

int NotifyInitSystem(std::string_view state, NotifyWait wait) {
    const char* const variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = variable != nullptr ? variable : "";
    sockaddr_un address{};
    if (name.empty()) return 0;
    if (name.size() >= sizeof(address.sun_path) || (name[0] != '/' && name[0] != '@')) {
        return EINVAL;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';  // an abstract address, not a file
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) return errno;
    // The receiver may be busy at boot, and a lost message would count as a failed start; but no
    // receiver may hold up a stop for ever.
    const timeval limit{5, 0};
    const bool mayWait = wait == NotifyWait::kAtMostFiveSeconds;
    if (mayWait) (void)setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    const ssize_t sent = sendto(
        socket.Get(), state.data(), state.size(), MSG_NOSIGNAL | (mayWait ? 0 : MSG_DONTWAIT),
        reinterpret_cast<const sockaddr*>(&address),
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size()));
    return sent >= 0 ? 0 : errno;
}
