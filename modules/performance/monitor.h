// The two threads of the performance monitor: one takes a sample each period, one brings the
// history to the disk when the first asks for it. Nothing wakes in between.
//
// Start, Stop, Apply and the questions come from one thread at a time. State throws std::bad_alloc.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "kemd/thread.h"
#include "modules/performance/alarms.h"
#include "modules/performance/clocks.h"
#include "modules/performance/module_series.h"
#include "modules/performance/moved.h"
#include "modules/performance/settings.h"
#include "performance/history_writer.h"
#include "performance/sampler.h"
#include "performance/series.h"

inline constexpr const char* kHistoryFile = "/var/lib/kemd/performance/history";

// What others may know of the threads' work.
struct MonitorState {
    std::string error;  // why no sample is written; empty: they are
    int syncError = 0;  // why the file does not reach the disk: an errno number
    std::string alarms;
    std::string notes;  // what cannot be had here, a line each
    uint64_t samples = 0;
    uint64_t gaps = 0;     // samples that were missed
    size_t series = 0;     // with a value
    size_t ofModules = 0;  // registered
    int64_t periodMs = 0;
    int64_t at = 0;  // of the last sample, or of the start: CLOCK_MONOTONIC
};

class Monitor {
  public:
    Monitor() = default;
    ~Monitor() { Stop(); }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // False when there is no thread.
    [[nodiscard]] bool Start(const PerformanceSettings& settings);
    void Stop();
    // From the next sample on.
    void Apply(const PerformanceSettings& settings);
    [[nodiscard]] MonitorState State();
    // Brings what was sampled to the disk now: 0 or an errno number.
    [[nodiscard]] int Sync();

  private:
    static void* RunSampler(void* self);
    static void* RunSyncer(void* self);
    void Sample();
    void KeepSynced();
    // False when the thread is to end.
    bool AwaitDeadline();
    void TakeDueSample();
    void TakeSettings();
    void Open(const SampleTime& now);
    void OpenWriter(const SampleTime& now);
    bool TryOpenWriter();
    void Close();
    void Tick(uint64_t missed);
    void MarkClocks(const SampleTime& now);
    void AppendSample(const SampleTime& now);
    void Report(const SampleTime& now);
    void Report(const SampleTime& now, const AlarmEvent& event, Moved& moved);
    void MarkDeadModules(const SampleTime& now);
    void RequestSync(const SampleTime& now);
    void TakeNotes(const SampleTime& now);
    void Publish(const SampleTime& now);
    void AddMark(const SampleTime& now, MarkKind kind, int64_t value, const std::string& text);
    [[nodiscard]] bool IsFileOurs();

    CThread m_sampler;
    CThread m_syncer;
    bool m_isRunning = false;

    // The sampling thread's.
    PerformanceSettings m_settings;
    std::unique_ptr<SeriesTable> m_table;
    std::unique_ptr<Sampler> m_sources;
    ModuleSeries m_modules;
    Alarms m_alarms;
    std::vector<AlarmEvent> m_events;
    std::set<std::string> m_dead;  // modules
    std::string m_bootId;
    Clocks m_clocks;
    bool m_isOpenWanted = false;
    int64_t m_deadline = 0;  // CLOCK_MONOTONIC
    int64_t m_openAt = 0;    // when to try again
    int64_t m_syncedAt = 0;
    int64_t m_notesAt = 0;   // when to ask for them again
    bool m_isFirst = false;  // after the sources were made
    dev_t m_device = 0;      // of the file that is written
    ino_t m_inode = 0;
    off_t m_size = 0;
    std::string m_losses;  // of the history, as it was reported
    MonitorState m_own;

    // Under the lock.
    std::mutex m_lock;
    std::condition_variable m_change;   // for the sampling thread
    std::condition_variable m_request;  // for the other one
    PerformanceSettings m_wanted;
    MonitorState m_state;
    bool m_isEnding = false;
    bool m_isChanged = false;
    bool m_isSyncWanted = false;

    // Held while the writer is synced, made or closed.
    std::mutex m_writerLock;
    std::unique_ptr<HistoryWriter> m_writer;
};
