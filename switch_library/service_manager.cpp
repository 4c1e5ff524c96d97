#include "switch_library/service_manager.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/unique_fd.h"

namespace {

using Line = std::array<char, 1024>;

std::string_view Format(Line& line, const char* begin, const char* format, va_list args)
    KEMD_PRINTF(3, 0);
std::string_view Format(Line& line, const char* begin, const char* format, va_list args) {
    const auto start = static_cast<size_t>(std::snprintf(line.data(), line.size(), "%s", begin));
    std::vsnprintf(line.data() + start, line.size() - start - 1, format, args);
    // A name of a file may hold anything; this is one line.
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line.data();
}

// The service manager names the stream by its device and inode: the variable outlives it.
bool IsJournal(int file) {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    unsigned long device = 0;
    unsigned long inode = 0;
    return stream != nullptr && std::sscanf(stream, "%lu:%lu", &device, &inode) == 2 &&
           fstat(file, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

}  // namespace

void ShowStatus(const char* format, ...) {
    const char* const variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = variable != nullptr ? variable : "";
    sockaddr_un address{};
    if (name.empty() || name.size() >= sizeof(address.sun_path)) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';  // not a file
    Line line{};
    va_list args;
    va_start(args, format);
    const std::string_view text = Format(line, "STATUS=", format, args);
    va_end(args);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)sendto(socket.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size()));
}

void WriteToJournal(const char* format, ...) {
    if (!IsJournal(STDERR_FILENO)) return;
    Line line{};
    va_list args;
    va_start(args, format);
    const size_t length = Format(line, "<4>kemd: ", format, args).size();  // 4: a warning
    va_end(args);
    line[length] = '\n';
    (void)!write(STDERR_FILENO, line.data(), length + 1);
}
