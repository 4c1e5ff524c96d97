// Brings the trace files to the disk again and again, when kemd.ini asks for it: what a power cut
// loses is then not older than the interval. A thread of its own, as a slow disk holds it up; there
// is none without the setting.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

class TraceSync {
  public:
    TraceSync() = default;
    ~TraceSync() { Stop(); }
    TraceSync(const TraceSync&) = delete;
    TraceSync& operator=(const TraceSync&) = delete;

    // Throws std::system_error when there can be no thread.
    void Start();
    // Waits for a sync that is running.
    void Stop();

  private:
    void Run(int64_t intervalMs);

    std::thread m_thread;
    std::mutex m_lock;
    std::condition_variable m_end;
    bool m_isEnding = false;
};
