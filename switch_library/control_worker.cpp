#include "switch_library/control_worker.h"

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include <exception>
#include <new>
#include <utility>

#include "base/crash_handler.h"
#include "kemd/trace.h"

// Of those that wait for the worker: as many places again are left for who only reads.
static constexpr size_t kMostJobs = 16;

// A module may end the thread that calls it.
class ControlWorker::Guard {
  public:
    Guard(ControlWorker& worker, uint64_t client) : m_worker(worker), m_client(client) {}
    ~Guard() {
        if (isOver) return;
        {
            const std::lock_guard lock(m_worker.m_lock);
            m_worker.m_isLost = true;
        }
        KemdMessage("switch", "a module has ended the thread of kemd's that called it");
        m_worker.Give(
            m_client,
            ControlError("a module has ended the thread that serves requests: restart kemd"));
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    bool isOver = false;

  private:
    ControlWorker& m_worker;
    uint64_t m_client;
};

void ControlWorker::Start(Execute execute, const Wakeup& wakeup) {
    m_execute = std::move(execute);
    m_wakeup = &wakeup;
    m_isEnding = false;
    m_isLost = false;
    m_thread = std::thread([this] { Run(); });
    (void)pthread_setname_np(m_thread.native_handle(), "kemd-worker");
}

void ControlWorker::Stop() {
    if (!m_thread.joinable()) return;
    {
        const std::lock_guard lock(m_lock);
        m_isEnding = true;
    }
    m_change.notify_one();
    m_thread.join();
    for (const Job& job : m_jobs) Give(job.client, ControlError("kemd stops"));
    m_jobs.clear();
}

std::string ControlWorker::Post(uint64_t client, const ControlRequest& request) {
    const std::lock_guard lock(m_lock);
    if (m_isLost) return "a module has ended the thread that serves requests: restart kemd";
    if (m_isEnding) return "kemd stops";
    if (m_jobs.size() >= kMostJobs) return "busy: too many requests wait for modules; try again";
    m_jobs.push_back({client, request});
    m_change.notify_one();
    return {};
}

std::vector<ControlWorker::Answer> ControlWorker::TakeAnswers() {
    const std::lock_guard lock(m_lock);
    return std::exchange(m_answers, {});
}

// False at the end.
bool ControlWorker::Await(Job& job) {
    std::unique_lock lock(m_lock);
    m_change.wait(lock, [this] { return m_isEnding || !m_jobs.empty(); });
    if (m_isEnding) return false;
    job = std::move(m_jobs.front());
    m_jobs.pop_front();
    return true;
}

void ControlWorker::Run() {
    const AlternateStack stack;  // for a module that overflows this one
    // A module that cancels its caller would leave its clients without an answer.
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    for (Job job; Await(job);) {
        Guard guard(*this, job.client);
        std::string answer = Do(job.request);
        guard.isOver = true;
        Give(job.client, std::move(answer));
    }
}

std::string ControlWorker::Do(const ControlRequest& request) {
    try {
        return m_execute(request);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::bad_alloc&) {
        return "{\"error\":\"not enough memory\"}\n";
    }
}

void ControlWorker::Give(uint64_t client, std::string text) {
    const std::lock_guard lock(m_lock);
    m_answers.push_back({client, std::move(text)});
    m_wakeup->Wake();
}
