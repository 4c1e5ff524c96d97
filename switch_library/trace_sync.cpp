#include "switch_library/trace_sync.h"

#include <pthread.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "base/paths.h"
#include "kemd/config.h"
#include "kemd/trace.h"

// 0: not wanted.
static int64_t ReadIntervalMs() {
    constexpr int64_t kLeast = 1000;
    constexpr int64_t kMost = 3'600'000;
    const std::unique_ptr<KemdConfig, void (*)(KemdConfig*)> config(
        KemdConfigOpen(kSettingsFile, "Trace", "switch"), KemdConfigClose);
    int64_t interval = 0;
    (void)KemdConfigTime(config.get(), "SyncTrace", 0, kLeast, kMost, &interval);
    return interval;
}

void TraceSync::Start() {
    const int64_t interval = ReadIntervalMs();
    if (interval == 0 || m_thread.joinable()) return;
    m_isEnding = false;
    m_thread = std::thread([this, interval] { Run(interval); });
    (void)pthread_setname_np(m_thread.native_handle(), "kemd-sync");
}

void TraceSync::Stop() {
    if (!m_thread.joinable()) return;
    {
        const std::lock_guard lock(m_lock);
        m_isEnding = true;
    }
    m_end.notify_one();
    m_thread.join();
}

void TraceSync::Run(int64_t intervalMs) {
    bool hasFailed = false;
    std::unique_lock lock(m_lock);
    while (!m_end.wait_for(lock, std::chrono::milliseconds(intervalMs),
                           [this] { return m_isEnding; })) {
        lock.unlock();
        const int error = KemdTraceSync();
        if (error != 0 && !hasFailed) {
            KemdMessage("switch", "the trace files cannot be brought to the disk: %s",
                        std::strerror(error));
        }
        hasFailed = error != 0;
        lock.lock();
    }
}
