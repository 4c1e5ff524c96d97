#include "services/base/recursive_mutex.h"

void RecursiveMutex::Lock() {
    if (!m_valid) return;
    const pthread_t self = pthread_self();
    if (m_owner.load(std::memory_order_relaxed) != self) {
        pthread_mutex_lock(&m_mutex);
        m_owner.store(self, std::memory_order_relaxed);
    }
    ++m_depth;
}

void RecursiveMutex::Unlock() {
    if (!m_valid || m_owner.load(std::memory_order_relaxed) != pthread_self()) return;
    if (--m_depth > 0) return;
    m_owner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_mutex);
}

void RecursiveMutex::Destroy() {
    if (!m_valid) return;
    if (m_depth >= 1 && m_owner.load(std::memory_order_relaxed) == pthread_self()) {
        m_owner.store(0, std::memory_order_relaxed);
        m_depth = 0;
        pthread_mutex_unlock(&m_mutex);
    }
    m_valid = false;
    pthread_mutex_destroy(&m_mutex);
}
