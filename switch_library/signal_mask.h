// Remembers the calling thread's signal mask. A module that unblocks SIGTERM on the daemon's thread
// would make the next stop an immediate death.
#pragma once

#include <pthread.h>

#include <csignal>

class SignalMask {
  public:
    SignalMask() { pthread_sigmask(SIG_SETMASK, nullptr, &m_mask); }

    // Puts the mask back as it was. True when it had been changed.
    [[nodiscard]] bool Restore() const {
        sigset_t found{};
        pthread_sigmask(SIG_SETMASK, &m_mask, &found);
        for (int signal = 1; signal <= SIGRTMAX; ++signal) {
            if (sigismember(&found, signal) != sigismember(&m_mask, signal)) return true;
        }
        return false;
    }

  private:
    sigset_t m_mask{};
};
