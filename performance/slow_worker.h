// A thread for what may take long or hang: statvfs of a dying disk, sensors on a slow bus. The
// sampler submits tasks, goes on, and takes the results at a later sample. A task that hangs costs
// its thread; the others get a new one, as long as there are few such threads.
//
// One thread, the sampler's, calls all of it but SlowTask::Run.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

class SlowTask {
  public:
    virtual ~SlowTask() = default;

    // Whether it does not run now, so that what it found may be read.
    [[nodiscard]] bool IsIdle() const { return !m_isBusy.load(std::memory_order_acquire); }
    // Whether it was submitted long ago and still has no result.
    [[nodiscard]] bool IsOverdue(int64_t now) const {
        return !IsIdle() && now - m_since > kPatienceNs;
    }

    static constexpr int64_t kPatienceNs = 3'000'000'000;

  protected:
    // On the worker's thread.
    virtual void Run() = 0;

  private:
    friend class SlowWorker;
    std::atomic<bool> m_isBusy = false;
    int64_t m_since = 0;
};

class SlowWorker {
  public:
    SlowWorker();
    // Does not wait for a task that hangs: its thread keeps the task, and this code stays loaded.
    ~SlowWorker();
    SlowWorker(const SlowWorker&) = delete;
    SlowWorker& operator=(const SlowWorker&) = delete;

    // Only an idle task. `now`: CLOCK_MONOTONIC.
    void Submit(std::shared_ptr<SlowTask> task, int64_t now);
    // Gives up a thread that hangs, and makes another.
    void Check(int64_t now);
    // Until all is done, at most so long.
    void Wait(int64_t nanoseconds);
    // Threads that hang now.
    [[nodiscard]] int HangingThreads() const;

  private:
    struct Shared;
    static void Work(const std::shared_ptr<Shared>& shared, uint64_t number);
    void StartThread();

    std::shared_ptr<Shared> m_shared;
    std::thread m_thread;
};
