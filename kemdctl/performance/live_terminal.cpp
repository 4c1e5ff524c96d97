#include "kemdctl/performance/live_terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "base/file_io.h"
#include "base/utf8.h"

namespace {

// The alternate screen, no cursor, no wrapping at the right edge.
constexpr std::string_view kTake = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr std::string_view kGiveBack = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
termios g_before = {};

// Its action is the default again, and ends the process.
void OnFault(int signal) {
    (void)!write(STDOUT_FILENO, kGiveBack.data(), kGiveBack.size());
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &g_before);
    (void)raise(signal);
}

void SetFaultHandler(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int fault : kFaults) (void)sigaction(fault, &action, nullptr);
}

}  // namespace

bool LiveTerminal::Take() {
    if (tcgetattr(STDIN_FILENO, &m_before) != 0) return false;
    g_before = m_before;
    termios raw = m_before;
    // The keys of signals stay: they come as signals.
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_iflag &= ~static_cast<tcflag_t>(ICRNL | IXON);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    SetFaultHandler(OnFault);
    m_isTaken = true;
    Forget();
    return tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0 && WriteFully(STDOUT_FILENO, kTake);
}

void LiveTerminal::GiveBack() {
    if (!std::exchange(m_isTaken, false)) return;
    // The settings first: who sees the screen given back finds these, too.
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
    (void)WriteFully(STDOUT_FILENO, kGiveBack);
    SetFaultHandler(SIG_DFL);
}

LiveTerminal::Size LiveTerminal::CurrentSize() {
    struct winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

bool LiveTerminal::Show(const std::vector<std::string>& lines) {
    std::string bytes;
    const size_t count = std::max(lines.size(), m_shown.size());
    for (size_t i = 0; i < count; ++i) {
        const std::string_view line = i < lines.size() ? lines[i] : std::string_view();
        if (i < m_shown.size() && m_shown[i] == line) continue;
        // Erased first: after a character in the last column the rest of the line is that one.
        bytes.append("\x1b[").append(std::to_string(i + 1)).append(";1H\x1b[0m\x1b[K");
        bytes += line;
    }
    m_shown = lines;
    return bytes.empty() || WriteFully(STDOUT_FILENO, bytes);
}

std::vector<std::string> ParseKeys(std::string_view bytes) {
    constexpr std::pair<std::string_view, const char*> kSequences[] = {
        {"\x1b[A", "up"},    {"\x1b[B", "down"},     {"\x1bOA", "up"},
        {"\x1bOB", "down"},  {"\x1b[5~", "page up"}, {"\x1b[6~", "page down"},
        {"\x1b[H", "home"},  {"\x1b[F", "end"},      {"\x1b[1~", "home"},
        {"\x1b[4~", "end"},  {"\x1bOH", "home"},     {"\x1bOF", "end"},
        {"\r", "enter"},     {"\n", "enter"},        {"\x7f", "backspace"},
        {"\b", "backspace"},
    };
    std::vector<std::string> keys;
    while (!bytes.empty()) {
        const auto* found = std::find_if(
            std::begin(kSequences), std::end(kSequences),
            [bytes](const auto& sequence) { return bytes.starts_with(sequence.first); });
        size_t length = std::max<size_t>(Utf8Length(bytes), 1);
        if (found != std::end(kSequences)) {
            length = found->first.size();
            keys.emplace_back(found->second);
        } else if (bytes.starts_with("\x1b[") || bytes.starts_with("\x1bO")) {
            const size_t end =
                bytes.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz~", 2);
            length = end == bytes.npos ? bytes.size() : end + 1;
        } else if (bytes[0] == '\x1b') {
            keys.emplace_back("escape");
        } else if (static_cast<unsigned char>(bytes[0]) >= ' ') {
            keys.emplace_back(bytes.substr(0, length));
        }
        bytes.remove_prefix(std::min(length, bytes.size()));
    }
    return keys;
}
