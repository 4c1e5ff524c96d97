// One thread of the system with a priority, either joinable ("waitable") or detached.
//
// An object belongs to the thread that uses it: it takes no lock, and it must not be destroyed
// while another thread uses it. Its destructor neither waits for the thread nor stops it. Nothing
// throws.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>

#include "kemd/api.h"
#include "kemd/cxx_library.h"

struct ThreadRecord;

class KEMD_API CThread {
  public:
    CThread();
    ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Starts `function(argument)`. A priority other than 0 is one of SCHED_RR, 1 to 99, for which
    // the process needs the privilege; 0 keeps the usual scheduling. `suspend` and `stackSize` (in
    // bytes) are only reported: the thread runs at once, on a stack of the default size. False when
    // there is no new thread.
    bool Start(void* (*function)(void*), void* argument, int32_t priority, bool suspend,
               uint32_t stackSize, bool waitable);
    // Waits without limit until a joinable thread has ended; the timeout (milliseconds) is ignored.
    // True when it has, and when there is no thread; false at once for a detached one. A thread
    // cancellation point.
    bool WaitForTermination(int32_t timeoutMs);
    // A joinable thread is waited for, not cancelled; a detached one is asked to end at its next
    // cancellation point. False when there is no thread or the system refuses. Waiting is a
    // cancellation point, here and in a Start that kills.
    bool Kill();

    // The running or last started thread; 0 when there is none.
    pthread_t m_thread = 0;
    // Start first kills the thread that m_thread still names.
    bool m_killAliveThread = false;
    // The thread was created joinable. Set by Start.
    bool m_waitable = false;

  private:
    bool Cancel();

    std::shared_ptr<ThreadRecord> m_record;
};

KEMD_CLASS_SIZE(CThread, 32);
