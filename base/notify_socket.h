// The socket of the init system: systemd names it in NOTIFY_SOCKET. Allocates nothing; any thread.
#pragma once

#include <string_view>

enum class NotifyWait { kNever, kAtMostFiveSeconds };

// Sends `state`, lines of "NAME=value", as one datagram. 0 when it was sent or when no init system
// asked for it, an errno number otherwise.
[[nodiscard]] int NotifyInitSystem(std::string_view state, NotifyWait wait);
