#include "daemon/notify.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/notify_socket.h"
#include "base/version.h"
#include "trace/debug.h"

namespace {

// `state` has several lines; a message shows the first one.
void Notify(std::string_view state) {
    const int error = NotifyInitSystem(state, NotifyWait::kAtMostFiveSeconds);
    if (error == 0) return;
    state = state.substr(0, state.find('\n'));
    Debug.Message("%s-MAIN: cannot send %.*s to %s (%s)\n", kTag, static_cast<int>(state.size()),
                  state.data(), std::getenv("NOTIFY_SOCKET"), std::strerror(error));
}

}  // namespace

void NotifyReady() {
    Notify("READY=1\nSTATUS=Waiting for signals");
}

void NotifyStopping() {
    static bool isSent = false;
    if (isSent) return;
    isSent = true;
    Notify("STOPPING=1\nSTATUS=Stopping");
}

void ReportStart(const char* format, ...) {
    constexpr size_t kKey = 7;  // "STATUS="
    std::array<char, 1024> text{"STATUS="};
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text.data() + kKey, text.size() - kKey, format, args);
    va_end(args);
    std::replace(text.begin(), text.end(), '\n', ' ');  // a path may hold one
    std::fprintf(stderr, "%s: %s-MAIN: %s\n", program_invocation_name, kTag, text.data() + kKey);
    Notify(text.data());
}
