#include "daemon/notify.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/unique_fd.h"
#include "daemon/version.h"
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

// `state` has several lines; the first one stands for it in a message.
void Notify(std::string_view state) {
    const char* name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0') return;
    if (Send(name, state)) return;
    const int error = errno;
    state = state.substr(0, state.find('\n'));
    Debug.Message("%s-MAIN: cannot send %.*s to %s (%s)\n", kTag, static_cast<int>(state.size()),
                  state.data(), name, std::strerror(error));
}

}  // namespace

void NotifyReady() {
    Notify("READY=1\nSTATUS=Waiting for signals");
}

void NotifyStopping() {
    static bool isTold = false;
    if (isTold) return;
    isTold = true;
    Notify("STOPPING=1\nSTATUS=Stopping");
}

void ReportStart(const char* format, ...) {
    constexpr size_t kKey = 7;  // "STATUS="
    std::array<char, 1024> text{"STATUS="};
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text.data() + kKey, text.size() - kKey, format, args);
    va_end(args);
    std::replace(text.begin(), text.end(), '\n', ' ');  // of a path: it stays one line
    std::fprintf(stderr, "%s: %s-MAIN: %s\n", program_invocation_name, kTag, text.data() + kKey);
    Notify(text.data());
}
