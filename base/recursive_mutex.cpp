#include "base/recursive_mutex.h"

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
