// Sources whose values are read by the slow worker, every kRareNs.
#pragma once

#include "performance/slow_worker.h"
#include "performance/source.h"

class SlowSource {
  public:
    SlowSource() = default;
    virtual ~SlowSource() = default;
    SlowSource(const SlowSource&) = delete;
    SlowSource& operator=(const SlowSource&) = delete;

    // Looks which devices there are and submits their tasks.
    virtual void Start(SampleContext& context, SlowWorker& worker) = 0;
    // Takes the results that are there, and clears what is overdue.
    virtual void Collect(SampleContext& context) = 0;
    virtual void AddNotes(std::vector<std::string>& notes) const = 0;
};

// The task of one device, and whether its results were taken.
template <typename Task>
class PendingTask {
  public:
    template <typename... Arguments>
    explicit PendingTask(Arguments&&... arguments)
        : m_task(std::make_shared<Task>(std::forward<Arguments>(arguments)...)) {}

    void Start(SlowWorker& worker, int64_t now) {
        if (m_isPending) return;  // of the round before
        m_isPending = true;
        worker.Submit(m_task, now);
    }
    // Whether there are new results.
    bool Take() {
        if (!m_isPending || !m_task->IsIdle()) return false;
        m_isPending = false;
        return true;
    }
    [[nodiscard]] bool IsOverdue(int64_t now) const { return m_task->IsOverdue(now); }
    // Only after Take, until Start.
    [[nodiscard]] const Task& Result() const { return *m_task; }

  private:
    std::shared_ptr<Task> m_task;
    bool m_isPending = false;
};

using SlowSources = std::vector<std::unique_ptr<SlowSource>>;

void AddFilesystemSource(SlowSources& sources);
void AddSensorSource(SlowSources& sources);
void AddFrequencySource(SlowSources& sources);
void AddDiskErrorSource(SlowSources& sources);
