#include "kemdctl/trace/output.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "kemdctl/ui/command.h"
#include "kemdctl/ui/output_file.h"

namespace {

bool IsInstalled(const std::string& program) {
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        directory += "/";
        directory += program;
        if (access(directory.c_str(), X_OK) == 0) return true;
    }
    return false;
}

// As for other tools: less ends by itself when all fits on the screen, and shows colours. Root's
// less starts no shell and writes no file.
void SetEnvironment() {
    (void)setenv("LESS", "FRX", 0);
    (void)setenv("LV", "-c", 0);
    if (geteuid() == 0) (void)setenv("LESSSECURE", "1", 1);
}

int Spawn(const std::string& command, int input, pid_t& process) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t broken;
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    (void)posix_spawn_file_actions_init(&actions);
    (void)posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    (void)posix_spawnattr_init(&attributes);
    (void)posix_spawnattr_setsigdefault(&attributes, &broken);
    (void)posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::array<const char*, 4> arguments = {"sh", "-c", command.c_str(), nullptr};
    const int error = posix_spawn(&process, "/bin/sh", &actions, &attributes,
                                  const_cast<char**>(arguments.data()), environ);
    (void)posix_spawnattr_destroy(&attributes);
    (void)posix_spawn_file_actions_destroy(&actions);
    return error;
}

}  // namespace

std::string ChoosePager() {
    const char* const terminal = std::getenv("TERM");
    const bool isDumb = terminal == nullptr || std::string(terminal) == "dumb";
    if (isDumb || geteuid() != getuid()) return {};
    for (const char* name : {"KEMDCTL_PAGER", "PAGER"}) {
        const char* const value = std::getenv(name);
        if (value != nullptr) return std::string(value) == "cat" ? "" : value;
    }
    return IsInstalled("less") ? "less" : "";
}

bool Pager::Start(const std::string& command) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    const UniqueFd output(ends[0]);
    m_input = UniqueFd(ends[1]);
    SetEnvironment();
    // The interrupt key is the pager's as long as it runs.
    const auto before = std::signal(SIGINT, SIG_DFL);
    const int error = Spawn(command, output.Get(), m_process);
    if (error == 0) {
        (void)std::signal(SIGINT, SIG_IGN);
        return true;
    }
    (void)std::signal(SIGINT, before);
    m_process = 0;
    m_input = UniqueFd();
    errno = error;
    return false;
}

Pager::~Pager() {
    if (!IsRunning()) return;
    m_input = UniqueFd();
    while (waitpid(m_process, nullptr, 0) < 0 && errno == EINTR) continue;
    (void)std::signal(SIGINT, SIG_DFL);
}

Output::Output(const TraceOptions& options)
    : m_isTerminal(isatty(STDOUT_FILENO) == 1),
      m_hasColor(options.color == ColorMode::kAuto ? TerminalHasColor()
                                                   : options.color == ColorMode::kAlways) {
    m_text.reserve(2 * kEnough);
    const bool goesOn = options.follows || options.waitFor;
    if (m_isTerminal && options.mayPage && !goesOn) m_pagerCommand = ChoosePager();
}

void Output::Send() {
    if (!m_pagerCommand.empty() && !m_text.empty()) {
        // If the pager does not start, the text is shown without one.
        (void)m_pager.Start(m_pagerCommand);
        m_pagerCommand.clear();
    }
    if (m_pager.IsRunning()) {
        m_isLeft = m_isLeft || !WriteFully(m_pager.Get(), m_text);
    } else {
        Write(m_text);
    }
    m_text.clear();
}

void Output::PutBytes(std::string_view bytes) {
    Send();
    Write(bytes);
}

void Output::Flush() {
    Send();
    if (!m_pager.IsRunning()) FlushOutput();
}

bool Output::IsClosed() const {
    return m_isLeft || HasWriteFailed();
}
