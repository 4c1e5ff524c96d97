// The thread that calls modules for clients of the control socket, one request after the other. It
// sleeps while there is none.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "switch_library/control_request.h"
#include "switch_library/wakeup.h"

class ControlWorker {
  public:
    // Returns the answer; may take as long as modules do.
    using Execute = std::function<std::string(const ControlRequest&)>;
    struct Answer {
        uint64_t client;
        std::string text;
    };

    ControlWorker() = default;
    ~ControlWorker() { Stop(); }
    ControlWorker(const ControlWorker&) = delete;
    ControlWorker& operator=(const ControlWorker&) = delete;

    // `wakeup` is used when there is an answer. Throws std::system_error.
    void Start(Execute execute, const Wakeup& wakeup);
    // Waits for the request that is running; the others are dropped.
    void Stop();

    // Empty, or why the request is not taken.
    std::string Post(uint64_t client, const ControlRequest& request);
    std::vector<Answer> TakeAnswers();

  private:
    struct Job {
        uint64_t client = 0;
        ControlRequest request;
    };
    class Guard;

    void Run();
    [[nodiscard]] bool Await(Job& job);
    std::string Do(const ControlRequest& request);
    void Give(uint64_t client, std::string text);

    Execute m_execute;
    const Wakeup* m_wakeup = nullptr;
    std::thread m_thread;
    std::mutex m_lock;
    std::condition_variable m_change;
    std::list<Job> m_jobs;
    std::vector<Answer> m_answers;
    bool m_isEnding = false;
    bool m_isLost = false;
};
