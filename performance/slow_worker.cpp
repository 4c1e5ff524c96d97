#include "performance/slow_worker.h"

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <vector>

#include "performance/sample_time.h"

namespace {

constexpr int kMostHanging = 4;

// A thread that hangs returns into this code one day: the library must not be unloaded any more.
void KeepLoaded() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&KeepLoaded), &info) == 0) return;
    (void)dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

}  // namespace

struct SlowWorker::Shared {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<SlowTask>> queue;  // the last is next
    int64_t runsSince = 0;                         // of the current thread's task; 0: it waits
    uint64_t thread = 0;                           // number of the current one
    int hanging = 0;
    bool isStopping = false;
};

void SlowWorker::Work(const std::shared_ptr<Shared>& shared, uint64_t number) {
    pthread_setname_np(pthread_self(), "perf-slow");
    std::unique_lock lock(shared->mutex);
    for (;;) {
        shared->changed.wait(lock, [&] { return shared->isStopping || !shared->queue.empty(); });
        if (shared->isStopping) return;
        std::shared_ptr<SlowTask> task = std::move(shared->queue.back());
        shared->queue.pop_back();
        shared->runsSince = SampleTime::Now().monotonic;
        lock.unlock();
        task->Run();
        task->m_isBusy.store(false, std::memory_order_release);
        task.reset();
        lock.lock();
        if (shared->thread != number) break;  // it was given up
        shared->runsSince = 0;
        shared->changed.notify_all();
    }
    --shared->hanging;
}

SlowWorker::SlowWorker() : m_shared(std::make_shared<Shared>()) {
    StartThread();
}

void SlowWorker::StartThread() {
    // Signals are for the program's own threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        m_thread = std::thread(Work, m_shared, m_shared->thread);
    } catch (const std::system_error&) {
        // Then tasks are overdue.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

SlowWorker::~SlowWorker() {
    std::unique_lock lock(m_shared->mutex);
    m_shared->isStopping = true;
    m_shared->queue.clear();
    m_shared->changed.notify_all();
    const bool hasEnded = m_shared->changed.wait_for(lock, std::chrono::seconds(1),
                                                     [&] { return m_shared->runsSince == 0; });
    lock.unlock();
    if (!m_thread.joinable()) return;
    if (hasEnded) {
        m_thread.join();
    } else {
        KeepLoaded();
        m_thread.detach();
    }
}

void SlowWorker::Submit(std::shared_ptr<SlowTask> task, int64_t now) {
    task->m_since = now;
    task->m_isBusy.store(true, std::memory_order_relaxed);
    const std::scoped_lock lock(m_shared->mutex);
    m_shared->queue.push_back(std::move(task));
    m_shared->changed.notify_all();
}

void SlowWorker::Check(int64_t now) {
    std::unique_lock lock(m_shared->mutex);
    const bool hangs =
        m_shared->runsSince != 0 && now - m_shared->runsSince > SlowTask::kPatienceNs;
    if (!hangs || m_shared->hanging == kMostHanging) return;
    ++m_shared->hanging;
    ++m_shared->thread;
    m_shared->runsSince = 0;
    lock.unlock();
    KeepLoaded();
    if (m_thread.joinable()) m_thread.detach();
    StartThread();
}

void SlowWorker::Wait(int64_t nanoseconds) {
    std::unique_lock lock(m_shared->mutex);
    m_shared->changed.wait_for(lock, std::chrono::nanoseconds(nanoseconds),
                               [&] { return m_shared->runsSince == 0 && m_shared->queue.empty(); });
}

int SlowWorker::HangingThreads() const {
    const std::scoped_lock lock(m_shared->mutex);
    return m_shared->hanging;
}
