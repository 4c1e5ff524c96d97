#include "switch_library/isolated_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "base/crash_file.h"
#include "base/module_object.h"
#include "base/paths.h"
#include "kemd/performance.h"
#include "kemd/trace.h"
#include "switch_library/module_board.h"

using std::chrono::milliseconds;

namespace {

// The control thread names a call that hangs when its time is over; then the process is killed.
constexpr milliseconds kGrace{200};
constexpr milliseconds kAfterKill{5000};
constexpr size_t kPipeSize = size_t{256} << 10;

std::string ErrorText(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

std::string Within(const char* what, milliseconds timeout) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%s within %.1f s", what,
                  std::chrono::duration<double>(timeout).count());
    return text.data();
}

// What a new process gets: its descriptors, no signal blocked or ignored, a session of its own.
class SpawnSetup {
  public:
    SpawnSetup(int calls, int trace, int level, int series) {
        posix_spawn_file_actions_init(&m_files);
        posix_spawnattr_init(&m_attributes);
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            posix_spawn_file_actions_addopen(&m_files, fd, "/dev/null", O_RDWR, 0);
        }
        posix_spawn_file_actions_adddup2(&m_files, calls, kIsolatedCalls);
        posix_spawn_file_actions_adddup2(&m_files, trace, kIsolatedTrace);
        posix_spawn_file_actions_adddup2(&m_files, level, kIsolatedLevel);
        posix_spawn_file_actions_adddup2(&m_files, series, kIsolatedSeries);
        posix_spawn_file_actions_addclosefrom_np(&m_files, kIsolatedSeries + 1);
        sigset_t signals{};
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&m_attributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
        posix_spawnattr_setflags(
            &m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&m_files);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    int Spawn(pid_t* process, const char* program, const char* const* arguments) {
        return posix_spawn(process, program, &m_files, &m_attributes,
                           const_cast<char* const*>(arguments), environ);
    }

  private:
    posix_spawn_file_actions_t m_files{};
    posix_spawnattr_t m_attributes{};
};

}  // namespace

std::unique_ptr<IsolatedProcess> IsolatedProcess::Spawn(const std::string& module, int level,
                                                        std::string& fault) {
    std::array<int, 2> calls = {-1, -1};
    std::array<int, 2> trace = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, calls.data()) != 0) {
        fault = ErrorText("no socket for its process");
        return nullptr;
    }
    std::unique_ptr<IsolatedProcess> process(new IsolatedProcess(module));
    process->m_calls.Reset(KeepHigh(calls[0]));
    const UniqueFd theirCalls(KeepHigh(calls[1]));
    if (pipe2(trace.data(), O_CLOEXEC) != 0) {
        fault = ErrorText("no pipe for its process");
        return nullptr;
    }
    process->m_trace.Reset(KeepHigh(trace[0]));
    const UniqueFd theirTrace(KeepHigh(trace[1]));
    (void)fcntl(process->m_trace.Get(), F_SETFL, O_NONBLOCK);
    // Larger, it lets the module go on for longer before it waits; as it is will do.
    (void)fcntl(process->m_trace.Get(), F_SETPIPE_SZ, kPipeSize);
    const int series = KemdSeriesShare(ModuleName(module).c_str());
    const UniqueFd theirSeries(series);
    if (series < 0) {
        fault = std::string("no memory for its series: ") + std::strerror(-series);
        return nullptr;
    }
    if (const int error =
            process->Start(level, theirCalls.Get(), theirTrace.Get(), theirSeries.Get())) {
        fault = std::string("cannot start ") + kModuleHost + ": " + std::strerror(error);
        return nullptr;
    }
    process->m_watch.Reset(KeepHigh(static_cast<int>(syscall(SYS_pidfd_open, process->m_id, 0))));
    if (process->m_watch.IsOpen()) return process;
    fault = ErrorText("its process cannot be watched (Linux 5.3 can)");
    return nullptr;
}

int IsolatedProcess::Start(int level, int calls, int trace, int series) {
    const std::array<const char*, 4> arguments = {"kemd-module-host", "--isolated",
                                                  m_module.c_str(), nullptr};
    return SpawnSetup(calls, trace, level, series).Spawn(&m_id, kModuleHost, arguments.data());
}

IsolatedProcess::~IsolatedProcess() {
    if (m_id < 0 || m_isReaped) return;
    (void)kill(-m_id, SIGKILL);
    (void)kill(m_id, SIGKILL);
    (void)waitpid(m_id, nullptr, 0);
}

void IsolatedProcess::Kill(std::string_view why) {
    const std::lock_guard lock(m_lock);
    m_killedFor = why;
    if (!m_isReaped) (void)kill(m_id, SIGKILL);
}

bool IsolatedProcess::AwaitEnd(milliseconds timeout) {
    std::unique_lock lock(m_lock);
    return m_change.wait_for(lock, timeout, [this] { return m_isOver; });
}

IsolatedAnswer IsolatedProcess::Call(const IsolatedRequest& request, std::string_view text,
                                     milliseconds timeout, std::string& answer) {
    if (text.size() > kIsolatedMostText - sizeof request) throw std::runtime_error("too long");
    std::array<iovec, 2> parts = {{{const_cast<IsolatedRequest*>(&request), sizeof request},
                                   {const_cast<char*>(text.data()), text.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    answer.resize(kIsolatedMostText);
    pollfd ready{m_calls.Get(), POLLIN, 0};
    IsolatedAnswer head{};
    ssize_t length = -1;
    if (sendmsg(m_calls.Get(), &message, MSG_NOSIGNAL) >= 0) {
        const auto deadline = std::chrono::steady_clock::now() + timeout + kGrace;
        int count = 0;
        do {
            const auto left =
                std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
            count = poll(&ready, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        } while (count < 0 && errno == EINTR);
        if (count == 0) FailHanging(timeout);
        parts = {{{&head, sizeof head}, {answer.data(), answer.size()}}};
        length = recvmsg(m_calls.Get(), &message, 0);
        ForwardTrace();
    }
    if (length < static_cast<ssize_t>(sizeof head)) {
        // It is ending, or has closed its descriptors and cannot be spoken to any more.
        if (!AwaitEnd(kGrace)) {
            Kill("it closed the descriptor of its calls");
            (void)AwaitEnd(kAfterKill);
        }
        throw std::runtime_error(EndText());
    }
    answer.resize(static_cast<size_t>(length) - sizeof head);
    if (head.outcome == IsolatedOutcome::kThrew) throw std::runtime_error(answer);
    return head;
}

void IsolatedProcess::FailHanging(milliseconds timeout) {
    Kill(Within("its call has not come back", timeout));
    (void)AwaitEnd(kAfterKill);
    TheModuleBoard().ForgetOverdue();
    throw std::runtime_error(EndText());
}

void IsolatedProcess::ExpectEnd() {
    const std::lock_guard lock(m_lock);
    m_isEnding = true;
}

std::string IsolatedProcess::End(milliseconds timeout) {
    ExpectEnd();
    if (IsOver()) return {};
    (void)shutdown(m_calls.Get(), SHUT_RDWR);
    if (!AwaitEnd(timeout)) {
        Kill(Within("its process has not ended", timeout));
        (void)AwaitEnd(kAfterKill);
    }
    const std::string end = EndText();
    const std::lock_guard lock(m_lock);
    return m_isInOrder ? "" : end;
}

bool IsolatedProcess::IsOver() const {
    const std::lock_guard lock(m_lock);
    return m_isOver;
}

std::string IsolatedProcess::EndText() const {
    const std::lock_guard lock(m_lock);
    return m_isReaped ? m_end : "its process cannot be ended";
}

void IsolatedProcess::ForwardTrace() {
    const std::lock_guard lock(m_traceLock);
    for (size_t taken = 0; taken < kPipeSize;) {
        const ssize_t count =
            read(m_trace.Get(), m_records.data() + m_length, m_records.size() - m_length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) return;
        if (count <= 0) return m_trace.Reset();  // nothing writes there any more
        taken += static_cast<size_t>(count);
        m_length += static_cast<size_t>(count);
        if (ForwardRecords()) continue;
        Kill("its trace records are not whole");
        return m_trace.Reset();
    }
}

// Those that are whole; false when one cannot be.
bool IsolatedProcess::ForwardRecords() {
    size_t begin = 0;
    IsolatedRecord record{};
    while (m_length - begin >= sizeof record) {
        std::memcpy(&record, m_records.data() + begin, sizeof record);
        if (record.size < sizeof record + record.tagSize || record.size > PIPE_BUF) return false;
        if (m_length - begin < record.size) break;
        Forward(record, {m_records.data() + begin + sizeof record, record.size - sizeof record});
        begin += record.size;
    }
    m_length -= begin;
    std::memmove(m_records.data(), m_records.data() + begin, m_length);
    return true;
}

void IsolatedProcess::Forward(const IsolatedRecord& record, std::string_view rest) {
    const std::string_view text = rest.substr(record.tagSize);
    std::array<char, PIPE_BUF + 2> ended;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    char* const tag = ended.data();
    tag[rest.copy(tag, record.tagSize)] = '\0';
    char* const shown = tag + record.tagSize + 1;
    shown[text.copy(shown, text.size())] = '\0';
    switch (record.kind) {
        case IsolatedRecordKind::kCrash:
            m_crash = shown;
            if (!AppendIsolatedCrash(m_crash)) {
                KemdMessage("switch", "cannot write %s (%s)", kCrashFile, std::strerror(errno));
            }
            return;
        case IsolatedRecordKind::kMessage:
            return KemdTraceForward(tag, 0, record.thread, shown);
        case IsolatedRecordKind::kTrace:
            return KemdTraceForward(tag, std::max<unsigned>(record.level, 1), record.thread, shown);
    }
}

bool IsolatedProcess::TakeEnd() {
    ForwardTrace();
    siginfo_t info{};
    // A module in the daemon may have waited for it, or have SIGCHLD ignored: then the id is free.
    const bool isThere =
        TEMP_FAILURE_RETRY(waitid(P_PID, static_cast<id_t>(m_id), &info, WEXITED | WNOWAIT)) == 0;
    if (isThere) (void)kill(-m_id, SIGKILL);  // those that it left in its group
    {
        const std::lock_guard lock(m_lock);
        m_isReaped = true;
        if (isThere) (void)waitpid(m_id, nullptr, 0);
    }
    std::string end;
    if (!isThere) {
        end = "its process ended, how is not known";
    } else if (info.si_code == CLD_EXITED) {
        end = "its process ended with status " + std::to_string(info.si_status);
    } else {
        const char* const name = sigdescr_np(info.si_status);
        end = "its process died by signal " + std::to_string(info.si_status) + " (" +
              (name != nullptr ? name : "?") + ")";
    }
    (void)shutdown(m_calls.Get(), SHUT_RDWR);  // wakes the thread that waits for an answer
    const std::lock_guard lock(m_lock);
    m_isInOrder = m_killedFor.empty() && info.si_code == CLD_EXITED && info.si_status == 0;
    m_end = m_killedFor.empty() ? end : m_killedFor + ", its process was killed";
    if (!m_isEnding) KemdSeriesMarkDead(ModuleName(m_module).c_str());
    return !m_isEnding;
}

std::string IsolatedProcess::CrashText() const {
    const std::vector<CrashRecord> crashes = ParseCrashes(m_crash);
    if (crashes.empty()) return {};
    const CrashRecord& crash = crashes.front();
    std::string text;
    if (crash.sender != 0 && crash.sender != crash.process) {
        text = "sent by process " + std::to_string(crash.sender) + ", ";
    } else if (!crash.address.empty()) {
        text = "address " + crash.address + ", ";
    }
    text += "thread " + std::to_string(crash.thread) + " (" + crash.threadName + "):";
    for (const std::string& frame : crash.frames) text += " " + frame;
    return text;
}

void IsolatedProcess::DeclareOver() {
    const std::lock_guard lock(m_lock);
    m_isOver = true;
    m_change.notify_all();
}
