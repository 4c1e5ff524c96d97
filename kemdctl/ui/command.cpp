#include "kemdctl/ui/command.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kemdctl/ui/text.h"

static int g_writeError = 0;
// Of a fixed size, as it is needed when there is no memory.
static char g_complaints[8192];
static size_t g_complaintsLength = 0;

CommandLine::CommandLine(int argc, char** argv) {
    bool isEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        // A negative number is data.
        const bool isOption = word.size() > 1 && word[0] == '-' && (word[1] < '0' || word[1] > '9');
        if (isEnded || !isOption) {
            words.push_back(argv[i]);
        } else if (word == "--") {
            isEnded = true;
        } else {
            const size_t equals = word.find('=');
            const char* const value = equals != word.npos ? argv[i] + equals + 1 : nullptr;
            options.push_back({word.substr(0, equals), value, words.size(), false, false});
        }
    }
}

bool CommandLine::Has(std::string_view option) const {
    return std::any_of(options.begin(), options.end(),
                       [option](const Option& each) { return each.name == option; });
}

const char* CommandLine::TakeValue(std::string_view option) {
    const auto found = std::find_if(options.begin(), options.end(),
                                    [option](const Option& each) { return each.name == option; });
    return found == options.end() ? nullptr : TakeValue(*found);
}

std::vector<const char*> CommandLine::TakeValues(std::string_view option) {
    std::vector<const char*> values;
    for (Option& each : options) {
        if (each.name != option) continue;
        each.mayRepeat = true;
        values.push_back(TakeValue(each));
    }
    return values;
}

const char* CommandLine::TakeValue(Option& option) {
    option.isTaken = true;
    if (option.value != nullptr) return option.value;
    const size_t position = option.position;
    if (position >= words.size()) return nullptr;
    option.value = words[position];
    words.erase(words.begin() + static_cast<std::ptrdiff_t>(position));
    for (Option& each : options) each.position -= each.position > position ? 1 : 0;
    return option.value;
}

bool CommandLine::HasOnly(std::span<const std::string_view> known) const {
    for (const Option& option : options) {
        const bool isKnown = std::find(known.begin(), known.end(), option.name) != known.end();
        const auto times =
            std::count_if(options.begin(), options.end(),
                          [&option](const Option& each) { return each.name == option.name; });
        if (isKnown && (times == 1 || option.mayRepeat) &&
            (option.value == nullptr || option.isTaken))
            continue;
        Complain("%s option %s",
                 !isKnown    ? "unknown"
                 : times > 1 ? "repeated"
                             : "a value for the",
                 Printable(option.name).c_str());
        return false;
    }
    return true;
}

bool CommandLine::HasNoWords() const {
    if (words.empty()) return true;
    Complain("unexpected argument %s", Printable(words.front()).c_str());
    return false;
}

std::string_view CommandLine::TakeCommand() {
    if (words.empty()) return {};
    const std::string_view command = words.front();
    words.erase(words.begin());
    for (Option& each : options) each.position -= each.position > 0 ? 1 : 0;
    return command;
}

static void KeepComplaint(const char* format, va_list args) {
    if (std::strncmp(format, "note: ", 6) == 0) return;
    char* const end = g_complaints + g_complaintsLength;
    const size_t space = sizeof g_complaints - g_complaintsLength;
    constexpr size_t kSeparator = 2;
    if (space <= kSeparator + 1) return;
    const size_t begin = g_complaintsLength == 0 ? 0 : kSeparator;
    std::memcpy(end, "; ", begin);
    const int length = std::vsnprintf(end + begin, space - begin, format, args);
    if (length > 0) {
        g_complaintsLength += begin + std::min(static_cast<size_t>(length), space - begin - 1);
    }
}

void Complain(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::fputs("kemdctl: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
    va_start(args, format);
    KeepComplaint(format, args);
    va_end(args);
}

std::string_view Complaints() {
    return {g_complaints, g_complaintsLength};
}

void Write(std::string_view text) {
    if (g_writeError != 0 || fwrite_unlocked(text.data(), 1, text.size(), stdout) == text.size())
        return;
    g_writeError = errno;
}

bool HasWriteFailed() {
    return g_writeError != 0;
}

bool TerminalHasColor() {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool isRefused = refused != nullptr && *refused != '\0';
    return isatty(STDOUT_FILENO) == 1 && !isRefused && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
}

size_t TerminalWidth() {
    struct winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
    constexpr size_t kUsual = 80;
    return size.ws_col > 0 ? size.ws_col : kUsual;
}

// stdio drops the error together with the bytes that it could not write.
void FlushOutput() {
    if (std::fflush(stdout) != 0 && g_writeError == 0) g_writeError = errno;
}

bool FinishOutput() {
    FlushOutput();
    if (g_writeError == 0) return true;
    if (g_writeError != EPIPE) {
        Complain("cannot write standard output: %s", std::strerror(g_writeError));
    }
    return false;
}

void PrepareStreams() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // open takes the lowest free number, which is this one. Its direction is the wrong one, so
        // that every use fails.
        const int flags = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (fcntl(fd, F_GETFD) < 0) (void)!open("/dev/null", flags);
    }
    // A terminal shows lines as they come; all else takes many at once.
    static char buffer[32 << 10];
    if (isatty(STDOUT_FILENO) == 0) (void)std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}
