// Holds thread cancellation off while it lives, so that a thread cannot be cancelled between taking
// a lock and releasing it. A request that arrives meanwhile stays pending.
#pragma once

#include <pthread.h>

class CancelGuard {
  public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_previous); }
    ~CancelGuard() { pthread_setcancelstate(m_previous, nullptr); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

  private:
    int m_previous = PTHREAD_CANCEL_ENABLE;
};
