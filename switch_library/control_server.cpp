#include "switch_library/control_server.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>

#include "base/paths.h"
#include "kemd/trace.h"
#include "switch_library/module_board.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr size_t kMostClients = 32;
constexpr uint64_t kNoClient = 0;         // the server's own requests
constexpr uint64_t kNobody = UINT64_MAX;  // of those that need no answer

// A thread inherits the mask of its maker.
class DaemonSignalsBlocked {
  public:
    DaemonSignalsBlocked() {
        sigset_t signals{};
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) sigaddset(&signals, signal);
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
    }
    ~DaemonSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    DaemonSignalsBlocked(const DaemonSignalsBlocked&) = delete;
    DaemonSignalsBlocked& operator=(const DaemonSignalsBlocked&) = delete;

  private:
    sigset_t m_before{};
};

bool RunsModuleWithHealth() {
    const std::vector<ModuleInfo> modules = TheModuleBoard().Modules();
    return std::any_of(modules.begin(), modules.end(), [](const ModuleInfo& module) {
        return module.hasHealth && module.state == ModuleState::kRunning;
    });
}

}  // namespace

void ControlServer::Start() {
    if (IsRunning()) return;
    const std::string fault = MakeThreads();
    if (fault.empty()) return;
    KemdMessage(kTag, "kemdctl cannot reach the modules: %s", fault.c_str());
}

// The socket may be missing: the thread then only watches the calls.
std::string ControlServer::MakeThreads() try {
    m_isEnding = false;
    m_isHealthAsked = false;
    m_polled.reserve(kMostClients + 3);  // idle, the thread needs no memory
    if (!m_wakeup.Open() || !TheModuleBoard().OpenWatch()) {
        return std::string("no descriptor for the control thread: ") + std::strerror(errno);
    }
    std::string fault = m_socket.Open();
    const DaemonSignalsBlocked blocked;
    m_worker.Start(m_execute, m_wakeup);
    m_sync.Start();
    m_thread = std::thread([this] { Run(); });
    (void)pthread_setname_np(m_thread.native_handle(), "kemd-control");
    return fault;
} catch (const std::exception& error) {
    m_worker.Stop();
    m_sync.Stop();
    m_socket.Close();
    return std::string("no thread: ") + error.what();
}

void ControlServer::Stop() {
    if (!IsRunning()) return;
    m_worker.Stop();
    m_sync.Stop();
    m_isEnding = true;
    m_wakeup.Wake();
    m_thread.join();
    TheModuleBoard().CloseWatch();
    m_wakeup.Close();
}

bool ControlServer::Post(const ControlRequest& request) {
    return m_worker.Post(kNobody, request).empty();
}

void ControlServer::Run() {
    for (;;) {
        try {
            Serve();
            break;
        } catch (const std::bad_alloc&) {
            m_clients.clear();  // they can ask again
        }
    }
    m_socket.Close();
    std::list<ControlClient>().swap(m_clients);
}

void ControlServer::Serve() {
    while (Poll()) {
        size_t next = 3;
        for (ControlClient& client : m_clients) {
            if (next == m_polled.size()) break;
            client.Move(m_polled[next++].revents);
        }
        if ((m_polled[1].revents & POLLIN) != 0) TheModuleBoard().NameOverdueCall();
        DeliverAnswers();
        if ((m_polled[2].revents & POLLIN) != 0) Accept();
        for (ControlClient& client : m_clients) Answer(client);
        EndLateOnes();
        PutLevelBack();
        if (m_isEnding) return;
    }
    KemdMessage(kTag, "a module has closed descriptors of kemd: no control from here on");
}

// False when a descriptor of its own is gone.
bool ControlServer::Poll() {
    m_polled.clear();
    m_polled.push_back(m_wakeup.Polled());
    m_polled.push_back({TheModuleBoard().Watch(), POLLIN, 0});
    m_polled.push_back({MayAccept() ? m_socket.Get() : -1, POLLIN, 0});
    for (const ControlClient& client : m_clients) {
        m_polled.push_back({client.Socket(), client.Events(), 0});
    }
    if (poll(m_polled.data(), m_polled.size(), PollTimeout()) < 0) {
        for (pollfd& each : m_polled) each.revents = 0;
    }
    return m_wakeup.Take(m_polled[0].revents) &&
           std::none_of(m_polled.begin() + 1, m_polled.begin() + 3,
                        [](const pollfd& each) { return (each.revents & POLLNVAL) != 0; });
}

bool ControlServer::MayAccept() const {
    return m_clients.size() < kMostClients && Clock::now() >= m_acceptFrom;
}

// How long a client may take over its request or over an answer.
milliseconds ControlServer::Limit() const {
    return m_clients.size() < kMostClients ? seconds(10) : seconds(1);
}

int ControlServer::PollTimeout() const {
    auto next = Clock::time_point::max();
    if (Clock::now() < m_acceptFrom) next = m_acceptFrom;
    if (m_level.until) next = std::min(next, *m_level.until);
    for (const ControlClient& client : m_clients) {
        if (client.healthUntil) next = std::min(next, *client.healthUntil);
        if (!client.IsWaiting()) next = std::min(next, client.Since() + Limit());
    }
    if (next == Clock::time_point::max()) return -1;
    const auto delay = std::chrono::ceil<milliseconds>(next - Clock::now());
    constexpr int64_t kMost = 3'600'000;
    return static_cast<int>(std::clamp<int64_t>(delay.count(), 0, kMost));
}

void ControlServer::Accept() {
    UniqueFd connection(
        KeepHigh(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
    if (!connection.IsOpen()) {
        const bool isOver = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
        if (!isOver) m_acceptFrom = Clock::now() + seconds(1);  // no descriptor is left
        return;
    }
    const ControlSocket::Right right = m_socket.RightOf(connection.Get());
    ControlClient& client = m_clients.emplace_back(std::move(connection), ++m_lastId,
                                                   right == ControlSocket::Right::kChange);
    if (right != ControlSocket::Right::kNone) return;
    client.AnswerAndClose(ControlError("only root may ask, and the group in /etc/kemd/kemd.ini"));
}

void ControlServer::Answer(ControlClient& client) {
    while (const auto line = client.TakeRequest()) TakeRequest(client, *line);
}

void ControlServer::TakeRequest(ControlClient& client, const std::string& line) {
    ControlRequest request;
    std::string fault = ReadControlRequest(line, request);
    if (!fault.empty()) return client.Answer(ControlError(fault));
    if (!request.OnlyReads() && !client.MayChange()) {
        return client.Answer(ControlError("only root may ask for this"));
    }
    if (request.kind == ControlRequest::kTraceLevel) return client.Answer(ChangeLevel(request));
    if (request.OnlyReads()) {
        client.healthOf = request.module;
        return AskHealth(client);
    }
    fault = m_worker.Post(client.Id(), request);
    if (!fault.empty()) return client.Answer(ControlError(fault));
    client.Wait();
}

std::string ControlServer::ChangeLevel(const ControlRequest& request) {
    if (request.level) {
        const auto level = static_cast<unsigned>(*request.level);
        const unsigned before = m_level.until ? m_level.then : KemdTraceLevel();
        if (KemdTraceSetLevel(level) != 0) {
            return ControlError("kemd traces nowhere: tracing was off when it started");
        }
        m_level = {std::nullopt, level, before};
        if (request.seconds > 0) m_level.until = Clock::now() + seconds(request.seconds);
        KemdMessage(kTag, "the trace level is %u%s, as kemdctl asked", level,
                    m_level.until ? " for a while" : "");
    }
    std::string result = "{\"level\":" + std::to_string(KemdTraceLevel());
    if (m_level.until) {
        const auto left = std::chrono::ceil<seconds>(*m_level.until - Clock::now());
        result += ",\"seconds\":" + std::to_string(left.count()) +
                  ",\"then\":" + std::to_string(m_level.then);
    }
    return ControlResult(result + "}");
}

// Unless somebody else has changed it meanwhile.
void ControlServer::PutLevelBack() {
    if (!m_level.until || Clock::now() < *m_level.until) return;
    m_level.until.reset();
    if (KemdTraceLevel() != m_level.level) return;
    (void)KemdTraceSetLevel(m_level.then);
    KemdMessage(kTag, "the trace level is %u again", m_level.then);
}

void ControlServer::AskHealth(ControlClient& client) {
    if (!RunsModuleWithHealth()) return AnswerWithHealth(client, false);
    if (TheModuleBoard().RunningCall().isOverdue) return AnswerWithHealth(client, true);
    ControlRequest request;
    request.kind = ControlRequest::kHealth;
    if (!m_isHealthAsked) m_isHealthAsked = m_worker.Post(kNoClient, request).empty();
    client.healthUntil = Clock::now() + (m_isHealthAsked ? seconds(1) : seconds(0));
    client.Wait();
}

void ControlServer::AnswerWithHealth(ControlClient& client, bool isBusy) {
    client.Answer(client.healthOf.empty() ? DescribeModules(isBusy)
                                          : DescribeModule(client.healthOf, isBusy));
}

void ControlServer::DeliverAnswers() {
    for (ControlWorker::Answer& answer : m_worker.TakeAnswers()) {
        if (answer.client == kNoClient) m_isHealthAsked = false;
        for (ControlClient& client : m_clients) {
            if (client.Id() == answer.client) client.Answer(std::move(answer.text));
            if (answer.client == kNoClient && client.healthUntil) AnswerWithHealth(client, false);
        }
    }
}

void ControlServer::EndLateOnes() {
    const auto now = Clock::now();
    const milliseconds limit = Limit();
    for (ControlClient& client : m_clients) {
        if (client.healthUntil && now >= *client.healthUntil) AnswerWithHealth(client, true);
    }
    m_clients.remove_if([&](const ControlClient& client) {
        return client.IsOver() || (!client.IsWaiting() && now >= client.Since() + limit);
    });
}
