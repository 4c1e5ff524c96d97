// The control thread: serves the control socket and watches the time-outs of module calls. It never
// calls a module and never waits for one; what clients ask of modules goes to a worker. Idle, both
// threads sleep without a time-out. See docs/control-interface.md.
#pragma once

#include <poll.h>

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "switch_library/control_client.h"
#include "switch_library/control_socket.h"
#include "switch_library/control_worker.h"
#include "switch_library/trace_sync.h"
#include "switch_library/wakeup.h"

class ControlServer {
  public:
    explicit ControlServer(ControlWorker::Execute execute) : m_execute(std::move(execute)) {}
    ~ControlServer() { Stop(); }
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Makes socket and threads, unless they are there. What cannot be made is traced and done
    // without. The threads have SIGINT, SIGTERM, SIGHUP and SIGALRM blocked.
    void Start();
    // Waits for the request that is running, ends the threads and removes the socket.
    void Stop();
    // Has the worker execute a request that nobody waits for. Any thread; false: not now.
    [[nodiscard]] bool Post(const ControlRequest& request);
    [[nodiscard]] bool IsRunning() const { return m_thread.joinable(); }

  private:
    using Clock = ControlClient::Clock;

    std::string MakeThreads();
    void Run();
    void Serve();
    [[nodiscard]] bool Poll();
    [[nodiscard]] int PollTimeout() const;
    [[nodiscard]] bool MayAccept() const;
    [[nodiscard]] std::chrono::milliseconds Limit() const;
    void Accept();
    void Answer(ControlClient& client);
    void TakeRequest(ControlClient& client, const std::string& line);
    std::string ChangeLevel(const ControlRequest& request);
    void PutLevelBack();
    void AskHealth(ControlClient& client);
    void AnswerWithHealth(ControlClient& client, bool isBusy);
    void DeliverAnswers();
    void EndLateOnes();

    const ControlWorker::Execute m_execute;
    ControlSocket m_socket;
    ControlWorker m_worker;
    TraceSync m_sync;
    Wakeup m_wakeup;
    std::thread m_thread;
    std::atomic<bool> m_isEnding{false};
    // Of the control thread.
    std::list<ControlClient> m_clients;
    std::vector<pollfd> m_polled;
    uint64_t m_lastId = 0;
    bool m_isHealthAsked = false;
    Clock::time_point m_acceptFrom;
    // A trace level that holds for a while.
    struct {
        std::optional<Clock::time_point> until;
        unsigned level = 0;
        unsigned then = 0;
    } m_level;
};
