// The shared state behind all handles of one event, and what creating and releasing it
// (event_object.cpp) has in common with the operations on it (event.cpp).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct EventObject {
    pthread_cond_t cond;  // on CLOCK_MONOTONIC
    // Guards IsSignaled and waiters; both are also read without it.
    pthread_mutex_t mutex;
    int32_t refCount;  // guarded by the reference lock of event_object.cpp
    std::atomic<bool> IsManual;
    std::atomic<bool> IsSignaled;
    char* name;  // null: anonymous
    std::atomic<int32_t> waiters;
    pthread_condattr_t condAttr;
};

// For message texts.
inline const char* NameOf(const char* name) {
    return name != nullptr ? name : "anon";
}
inline const char* NameOf(const EventObject& event) {
    return NameOf(event.name);
}
inline int StateOf(const EventObject& event) {
    return event.IsSignaled ? 1 : 0;
}

// An event's mutex; a failed lock is carried on without.
class EventLock {
  public:
    explicit EventLock(EventObject& event)
        : m_event(event), m_locked(pthread_mutex_lock(&event.mutex) == 0) {}
    ~EventLock() { Unlock(); }
    EventLock(const EventLock&) = delete;
    EventLock& operator=(const EventLock&) = delete;

    [[nodiscard]] bool IsLocked() const { return m_locked; }
    void Unlock() {
        if (m_locked) pthread_mutex_unlock(&m_event.mutex);
        m_locked = false;
    }

  private:
    EventObject& m_event;
    bool m_locked;
};
