// A mutex that its owner may lock again. The trace object, the event tables and the registry use
// it.
//
// Any thread may call. Constant-initialised, so that a global one is ready before any constructor
// runs. When creation failed (or after Destroy or Abandon) Lock and Unlock do nothing.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

class RecursiveMutex {
  public:
    constexpr RecursiveMutex() = default;
    ~RecursiveMutex() { Destroy(); }
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    // Inline: the registry takes several for each look-up.
    void Lock() {
        if (!m_valid) return;
        const pthread_t self = pthread_self();
        if (m_owner.load(std::memory_order_relaxed) != self) {
            pthread_mutex_lock(&m_mutex);
            m_owner.store(self, std::memory_order_relaxed);
        }
        ++m_depth;
    }
    // Does nothing unless the caller is the owner.
    void Unlock() {
        if (!m_valid || m_owner.load(std::memory_order_relaxed) != pthread_self()) return;
        if (--m_depth > 0) return;
        m_owner.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_mutex);
    }
    // Gives the lock up first when the caller still holds it, at whatever depth.
    void Destroy();
    // For the child of a fork, where the thread that held it at that moment does not exist: Lock
    // and Unlock do nothing from now on.
    void Abandon() { m_valid = false; }

  private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    // Compared with the caller's id outside the mutex. Only a thread itself ever stores its own id,
    // so "equal" is never stale; 0 is no thread.
    std::atomic<pthread_t> m_owner{0};
    int32_t m_depth = 0;
    bool m_valid = true;
};

class RecursiveLock {
  public:
    explicit RecursiveLock(RecursiveMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~RecursiveLock() { m_mutex.Unlock(); }
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

  private:
    RecursiveMutex& m_mutex;
};
