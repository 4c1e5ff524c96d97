#include "switch_library/service_manager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "base/notify_socket.h"

namespace {

using Line = std::array<char, 1024>;

std::string_view Format(Line& line, const char* begin, const char* format, va_list args)
    KEMD_PRINTF(3, 0);
std::string_view Format(Line& line, const char* begin, const char* format, va_list args) {
    const auto start = static_cast<size_t>(std::snprintf(line.data(), line.size(), "%s", begin));
    std::vsnprintf(line.data() + start, line.size() - start - 1, format, args);
    // The name of a file may hold anything; this stays one line.
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line.data();
}

// Compare device and inode: the variable stays set when standard error is redirected.
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
    Line line{};
    va_list args;
    va_start(args, format);
    const std::string_view text = Format(line, "STATUS=", format, args);
    va_end(args);
    (void)NotifyInitSystem(text, NotifyWait::kNever);
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
