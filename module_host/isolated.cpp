#include "module_host/isolated.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "base/crash_handler.h"
#include "base/isolated_protocol.h"
#include "base/process_setup.h"
#include "base/unique_fd.h"
#include "kemd/exit_event.h"
#include "kemd/module.h"
#include "kemd/trace.h"
#include "module_host/isolated_rights.h"
#include "module_host/isolated_trace.h"
#include "module_host/loaded_module.h"
#include "services/module_config.h"
#include "services/module_series.h"
#include "services/registry/store.h"

namespace {

// The messages of both directions; out of the way of a module's memory limit.
std::array<char, kIsolatedMostText + 1> g_received;
std::array<char, kIsolatedMostText> g_answer;

// Takes the text of an answer into the message.
struct AnswerText : KemdReply {
    size_t length = 0;

    AnswerText() : KemdReply{Append} {}

    [[nodiscard]] static char* Start() { return g_answer.data() + sizeof(IsolatedAnswer); }
    static int Append(KemdReply* reply, const char* text, size_t size) {
        auto& self = static_cast<AnswerText&>(*reply);
        if (size > kIsolatedMostReply - self.length) return EMSGSIZE;
        std::memcpy(Start() + self.length, text, size);
        self.length += size;
        return 0;
    }
    void Add(std::string_view text) { (void)Append(this, text.data(), text.size()); }
    // With its NUL.
    void AddWord(const char* word) {
        Add({word != nullptr ? word : "", word != nullptr ? std::strlen(word) + 1 : 1});
    }
};

// One call and its answer.
struct Exchange {
    IsolatedRequest request{};
    std::string_view text;
    IsolatedAnswer answer{};
    AnswerText answerText;

    // The text up to its first NUL, which is taken out of it.
    const char* TakeWord() {
        const char* const word = text.data();
        text.remove_prefix(std::min(std::strlen(word) + 1, text.size()));
        return word;
    }
};

// How many the process has; 0: that cannot be seen.
unsigned Threads() {
    struct stat status {};
    if (stat("/proc/self/task", &status) != 0) return 0;
    return static_cast<unsigned>(status.st_nlink) - 2;  // a directory for each
}

class IsolatedModule {
  public:
    explicit IsolatedModule(int calls) : m_calls(calls) {}

    [[noreturn]] void Serve();

  private:
    bool Receive(Exchange& exchange);
    bool Answer(const Exchange& exchange);
    void Make(Exchange& exchange);
    void Call(Exchange& exchange);
    void Load(Exchange& exchange);
    [[nodiscard]] std::string Prepare(const Exchange& exchange, const char* path, const char* user);
    [[nodiscard]] int Configure(Exchange& exchange) const;
    void Notify(const Exchange& exchange) const;
    [[noreturn]] void End();

    const int m_calls;
    const pid_t m_process = getpid();
    const unsigned m_threads = Threads();  // without the module's
    LoadedModule m_module;
    std::string m_tag;
    bool m_isStopped = false;  // it may be unloaded
};

// Reports a thread that ends inside a call.
class EndOfProcess {
  public:
    explicit EndOfProcess(const char* module) : m_module(module) {}
    EndOfProcess(const EndOfProcess&) = delete;
    EndOfProcess& operator=(const EndOfProcess&) = delete;
    ~EndOfProcess() {
        if (!m_isDismissed) End();
    }
    void Dismiss() { m_isDismissed = true; }

  private:
    [[noreturn]] void End() const {
        KemdMessage(m_module, "the module ended the thread that calls it: its process ends");
        _exit(1);
    }

    const char* const m_module;
    bool m_isDismissed = false;
};

void IsolatedModule::Serve() {
    for (;;) {
        Exchange exchange;
        if (!Receive(exchange)) End();
        Make(exchange);
        if (getpid() != m_process) _exit(1);  // a child that the module forked and that returned
        if (!Answer(exchange)) _exit(1);
    }
}

bool IsolatedModule::Receive(Exchange& exchange) {
    const ssize_t size =
        TEMP_FAILURE_RETRY(recv(m_calls, g_received.data(), kIsolatedMostText, MSG_TRUNC));
    if (size > static_cast<ssize_t>(kIsolatedMostText)) {
        KemdMessage(m_tag.c_str(), "a call of %zd bytes is too long: the process ends", size);
        _exit(1);
    }
    if (size < static_cast<ssize_t>(sizeof exchange.request)) return false;
    g_received[static_cast<size_t>(size)] = '\0';
    std::memcpy(&exchange.request, g_received.data(), sizeof exchange.request);
    exchange.text = {g_received.data() + sizeof exchange.request,
                     static_cast<size_t>(size) - sizeof exchange.request};
    return true;
}

bool IsolatedModule::Answer(const Exchange& exchange) {
    std::memcpy(g_answer.data(), &exchange.answer, sizeof exchange.answer);
    const size_t size = sizeof exchange.answer + exchange.answerText.length;
    return TEMP_FAILURE_RETRY(send(m_calls, g_answer.data(), size, MSG_NOSIGNAL)) >= 0;
}

void IsolatedModule::Make(Exchange& exchange) {
    Thrown thrown{};
    EndOfProcess lastWord(m_tag.c_str());
    const bool returned = CallGuarded(thrown, [&] {
        Call(exchange);
        pthread_testcancel();  // a pending request is obeyed here, where it is noticed
    });
    lastWord.Dismiss();
    if (!returned) {
        exchange.answer.outcome = IsolatedOutcome::kThrew;
        exchange.answerText.length = 0;
        exchange.answerText.Add(thrown.data());
    }
    const bool isStopNotice =
        exchange.request.call == IsolatedCall::kNotify && exchange.request.code == KEMD_NOTIFY_STOP;
    if (isStopNotice) (void)SetEvent(ExitEvent());
    if (exchange.request.call == IsolatedCall::kStop) m_isStopped = returned;
}

void IsolatedModule::Call(Exchange& exchange) {
    switch (exchange.request.call) {
        case IsolatedCall::kLoad:
            return Load(exchange);
        case IsolatedCall::kConfigure:
            exchange.answer.result = Configure(exchange);
            return;
        case IsolatedCall::kStart:
            exchange.answer.result = m_module.Object().Start();
            return;
        case IsolatedCall::kStop:
            if (exchange.request.isDaemonStop != 0) (void)SetEvent(ExitEvent());
            return m_module.Object().Stop();
        case IsolatedCall::kNotify:
            return Notify(exchange);
        case IsolatedCall::kHealth: {
            std::array<char, 256> text{};
            exchange.answer.result = m_module.Object().Health(text.data(), text.size());
            return exchange.answerText.Add({text.data(), strnlen(text.data(), text.size())});
        }
        case IsolatedCall::kRequest:
            exchange.answer.result =
                m_module.Object().Request(exchange.text.data(), exchange.answerText);
            return;
    }
}

// The settings' file may be readable to root only.
int IsolatedModule::Configure(Exchange& exchange) const {
    const char* const file = exchange.TakeWord();
    return m_module.Configure(OpenConfigText(file, "Settings", m_tag.c_str(), exchange.text));
}

void IsolatedModule::Notify(const Exchange& exchange) const {
    const bool isShutdown = exchange.request.code == KEMD_NOTIFY_SHUTDOWN;
    m_module.Object().Notify(exchange.request.code,
                             isShutdown ? &exchange.request.runLevel : nullptr);
}

// Once: a module whose threads all ask for memory would fill the trace.
void ReportNoMemory() {
    static std::atomic_flag isReported = ATOMIC_FLAG_INIT;
    if (!isReported.test_and_set()) KemdMessage(nullptr, "no memory is left within MemoryLimit");
    throw std::bad_alloc();
}

std::string IsolatedModule::Prepare(const Exchange& exchange, const char* path, const char* user) {
    m_tag = ModuleName(std::strrchr(path, '/') + 1);
    SetOwnTag(m_tag.c_str());
    (void)prctl(PR_SET_NAME, ("kemd-" + m_tag).c_str());  // cut to 15 characters
    std::string reason;
    if (exchange.request.memoryLimit != 0) {
        reason = LimitMemory(exchange.request.memoryLimit);
        std::set_new_handler(ReportNoMemory);
    }
    if (*user == '\0' || !reason.empty()) return reason;
    reason = BecomeUser(user);
    if (!reason.empty() || access(path, R_OK) == 0) return reason;
    return "user " + std::string(user) + " cannot read " + path + ": " + std::strerror(errno);
}

void IsolatedModule::Load(Exchange& exchange) {
    const char* const path = exchange.TakeWord();
    const char* const user = exchange.TakeWord();
    std::string reason = *path == '/' ? Prepare(exchange, path, user) : "its path is not absolute";
    if (reason.empty()) reason = m_module.Load(path);
    NoteLoadedObjects(path, m_tag.c_str());
    if (!reason.empty()) {
        exchange.answer.outcome = IsolatedOutcome::kRefused;
        return exchange.answerText.Add(reason);
    }
    const ModuleObject& object = m_module.Object();
    exchange.answer.has = (object.HasConfigure() ? kIsolatedHasConfigure : 0) |
                          (object.HasNotify() ? kIsolatedHasNotify : 0) |
                          (object.HasHealth() ? kIsolatedHasHealth : 0) |
                          (object.HasRequest() ? kIsolatedHasRequest : 0);
    exchange.answerText.AddWord(object.Version());
    exchange.answerText.AddWord(object.Description());
    for (const char* const* name = object.StartAfter(); *name != nullptr; ++name) {
        exchange.answerText.AddWord(*name);
    }
}

// The code of a module that did not stop may be in use. A thread that was joined stays listed for a
// moment.
void IsolatedModule::End() {
    if (!m_isStopped) _exit(0);
    for (int tries = 0; tries < 1000 && Threads() > m_threads; ++tries) usleep(1000);
    if (Threads() > m_threads) {
        const unsigned left = Threads() - m_threads;
        KemdMessage(m_tag.c_str(), "%u thread%s left after stop: the module is not unloaded", left,
                    left == 1 ? " is" : "s are");
        _exit(0);
    }
    m_module.Unload();
    std::exit(0);
}

// A descriptor that the daemon gave us, out of the module's way. It is not for its children either.
UniqueFd TakeDescriptor(int fd) {
    UniqueFd high(KeepHigh(fd));
    (void)fcntl(high.Get(), F_SETFD, FD_CLOEXEC);
    return high;
}

bool IsForDaemon() {
    int type = 0;
    socklen_t size = sizeof type;
    struct stat trace {};
    return getsockopt(kIsolatedCalls, SOL_SOCKET, SO_TYPE, &type, &size) == 0 &&
           type == SOCK_SEQPACKET && fstat(kIsolatedTrace, &trace) == 0 && S_ISFIFO(trace.st_mode);
}

void OpenNullDescriptors() {
    OpenStandardDescriptors();
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO && null.IsOpen(); ++fd) dup2(null.Get(), fd);
}

void FreeSignals() {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) {
        sigaction(signal, &byDefault, nullptr);
    }
    sigset_t none{};
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Null when it cannot be mapped.
const uint32_t* MapLevel() {
    const UniqueFd page(kIsolatedLevel);
    void* const memory = mmap(nullptr, sizeof(uint32_t), PROT_READ, MAP_SHARED, page.Get(), 0);
    return memory != MAP_FAILED ? static_cast<const uint32_t*>(memory) : nullptr;
}

bool MapSeries() {
    const UniqueFd series(kIsolatedSeries);
    return AdoptSeriesRegion(series.Get()) == 0;
}

}  // namespace

void ServeIsolated() {
    if (!IsForDaemon()) {
        std::fputs("kemd-module-host: --isolated is for kemd, which runs modules with it\n",
                   stderr);
        _exit(2);
    }
    // A daemon that has ended meanwhile has closed its end of the socket.
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)close_range(kIsolatedSeries + 1, ~0U, 0);
    OpenNullDescriptors();
    const uint32_t* const level = MapLevel();
    const bool hasSeries = MapSeries();
    UniqueFd calls = TakeDescriptor(kIsolatedCalls);
    UniqueFd trace = TakeDescriptor(kIsolatedTrace);
    if (level == nullptr || !hasSeries) _exit(2);
    IgnoreFileSizeLimit();
    PrepareProcess();
    FreeSignals();
    TraceToDaemon(std::move(trace), level);
    const CrashHandler crashes({WriteCrash, CalledModule});
    TheRegistryStore().SetReadOnly();
    IsolatedModule(calls.Release()).Serve();
}
