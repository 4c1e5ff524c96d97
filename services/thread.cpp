#include "kemd/thread.h"

#include <sched.h>

#include <cerrno>
#include <exception>
#include <mutex>
#include <utility>

#include "base/cancel_guard.h"
#include "trace/debug.h"

// What the owner and its thread share. When a detached thread has ended, the system may reuse its
// id, so nothing may cancel or join by the id alone.
struct ThreadRecord {
    ThreadRecord(void* (*threadFunction)(void*), void* threadArgument, bool isJoinable)
        : function(threadFunction), argument(threadArgument), joinable(isJoinable) {}

    void* (*const function)(void*);
    void* const argument;
    const bool joinable;
    std::mutex mutex;
    bool finished = false;  // guarded by the mutex
};

namespace {

unsigned ShortId(pthread_t thread) {
    return static_cast<unsigned>(thread);
}

// Marks the thread as finished however it ends: by return, pthread_exit or cancellation.
class FinishMark {
  public:
    explicit FinishMark(std::shared_ptr<ThreadRecord> record) : m_record(std::move(record)) {}
    ~FinishMark() {
        const CancelGuard guard;
        const std::lock_guard lock(m_record->mutex);
        m_record->finished = true;
    }
    FinishMark(const FinishMark&) = delete;
    FinishMark& operator=(const FinishMark&) = delete;

    [[nodiscard]] const ThreadRecord& Record() const { return *m_record; }

  private:
    std::shared_ptr<ThreadRecord> m_record;
};

void* RunThread(void* argument) {
    const std::unique_ptr<std::shared_ptr<ThreadRecord>> record(
        static_cast<std::shared_ptr<ThreadRecord>*>(argument));
    const FinishMark mark(*record);
    return mark.Record().function(mark.Record().argument);
}

bool SetPriority(pthread_attr_t& attributes, int32_t priority) {
    // Without this the policy and the priority of the attributes are ignored.
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    int ret = pthread_attr_setschedpolicy(&attributes, SCHED_RR);
    if (ret != 0) {
        TRACE(2, "\npthread_attr_setschedpolicy failed: %d", ret);
        return false;
    }
    sched_param parameters{};
    ret = pthread_attr_getschedparam(&attributes, &parameters);
    if (ret != 0) {
        TRACE(2, "\npthread_attr_getschedparam failed: %d", ret);
        return false;
    }
    parameters.sched_priority = priority;
    ret = pthread_attr_setschedparam(&attributes, &parameters);
    if (ret == 0) return true;
    TRACE(2, "\npthread_attr_setschedparam failed: error=%d priority=%d", ret, priority);
    return false;
}

bool SetAttributes(pthread_attr_t& attributes, int32_t priority, bool waitable) {
    int ret = pthread_attr_init(&attributes);
    if (ret != 0) {
        TRACE(2, "\npthread_attr_init failed: %d", ret);
        return false;
    }
    TRACE(4, "\npthread_attr_init: %d", ret);
    if (!waitable) ret = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (ret != 0) {
        TRACE(2, "\npthread_attr_setdetachstate failed: %d", ret);
        return false;
    }
    TRACE(2, "\nThreadPrio=%d", priority);
    return priority == 0 || SetPriority(attributes, priority);
}

// Returns 0 or the error number; on failure `thread` is unchanged.
int CreateThread(pthread_t& thread, const pthread_attr_t& attributes,
                 const std::shared_ptr<ThreadRecord>& record) try {
    auto argument = std::make_unique<std::shared_ptr<ThreadRecord>>(record);
    const pthread_t previous = thread;
    const int ret = pthread_create(&thread, &attributes, RunThread, argument.get());
    if (ret == 0) {
        (void)argument.release();  // the thread owns it
    } else {
        thread = previous;
    }
    return ret;
} catch (const std::exception&) {
    return ENOMEM;
}

std::shared_ptr<ThreadRecord> NewRecord(void* (*function)(void*), void* argument,
                                        bool joinable) try {
    return std::make_shared<ThreadRecord>(function, argument, joinable);
} catch (const std::exception&) {
    return nullptr;
}

}  // namespace

CThread::CThread() = default;
CThread::~CThread() = default;

bool CThread::Start(void* (*function)(void*), void* argument, int32_t priority, bool suspend,
                    uint32_t stackSize, bool waitable) {
    TRACE(5,
          "\nCThread::Start: Start a thread, Prio=%d, Suspend=%d, StackSize=0x%08x, Waitable=%d, "
          "KillAliveThread=%d",
          priority, suspend ? 1 : 0, stackSize, waitable ? 1 : 0, m_killAliveThread ? 1 : 0);
    if (m_killAliveThread) Kill();
    m_waitable = waitable;
    pthread_attr_t attributes;
    // Required: the attributes are never destroyed. They own no memory.
    if (!SetAttributes(attributes, priority, waitable)) return false;
    auto record = NewRecord(function, argument, waitable);
    const int ret = record ? CreateThread(m_thread, attributes, record) : ENOMEM;
    if (ret != 0) {
        TRACE(2, "\npthread_create failed: %d", ret);
        return false;
    }
    m_record = std::move(record);
    TRACE(2, "\nCThread::Start: thread=0x%08X created, Prio=%d, Waitable=%d, StackSize=0x%x",
          ShortId(m_thread), priority, waitable ? 1 : 0, stackSize);
    sched_yield();
    return true;
}

// The texts name the caller.
static bool JoinAs(const char* failed, const char* ended, pthread_t& thread,
                   const ThreadRecord* record) KEMD_PRINTF(1, 0) KEMD_PRINTF(2, 0);
static bool JoinAs(const char* failed, const char* ended, pthread_t& thread,
                   const ThreadRecord* record) {
    void* status = nullptr;
    // For a detached thread, the error that pthread_join returns while such a thread lives.
    const bool joinable = record != nullptr && record->joinable;
    const int ret = joinable ? pthread_join(thread, &status) : EINVAL;
    if (ret != 0) {
        TRACE(1, failed, ShortId(thread), static_cast<unsigned>(ret));
        return false;
    }
    TRACE(1, ended, ShortId(thread), status);
    thread = 0;
    return true;
}

bool CThread::WaitForTermination(int32_t timeoutMs) {
    if (m_thread == 0) {
        TRACE(1, "\nCThread::WaitForTermination: Thread = 0x0%08X doesn't exist !", 0U);
        return true;
    }
    if (timeoutMs != -1) {
        TRACE(1,
              "\nCThread::WaitForTermination: WARNING: can't wait for Thread = 0x%08X termination "
              "with timeout",
              ShortId(m_thread));
    }
    if (!m_waitable) {
        TRACE(1, "\nCThread::WaitForTermination: WARNING: Can't wait for detached thread 0x%08X",
              ShortId(m_thread));
        return false;
    }
    return JoinAs(
        "\nCThread::WaitForTermination: ERROR ! ThreadJoin failed, Thread = 0x%08X, Err = 0x%08x",
        "\nCThread::WaitForTermination: a joinable Thread = 0x%08X has terminated, pstat=%p",
        m_thread, m_record.get());
}

bool CThread::Kill() {
    TRACE(1, "\nCThread::Kill: Try to kill the Thread = 0x%08X", ShortId(m_thread));
    if (m_thread == 0) {
        TRACE(1, "\nCThread::Kill: Thread = 0x0%08X doesn't exist !", 0U);
        return false;
    }
    if (!m_waitable) return Cancel();
    TRACE(1, "\nCThread::Kill: Try to join a joinable Thread = 0x%08X", ShortId(m_thread));
    return JoinAs("\nCThread::Kill: ERROR ! ThreadJoin failed, Thread = 0x%08X, Err = 0x%08x",
                  "\nCThread::Kill: a joinable Thread = 0x%08X has terminated, pstat=%p", m_thread,
                  m_record.get());
}

bool CThread::Cancel() {
    const unsigned id = ShortId(m_thread);
    TRACE(1, "\nCThread::Kill: Try to kill a non-joinable Thread = 0x0%08X", id);
    const pthread_t thread = std::exchange(m_thread, 0);
    if (m_record == nullptr) return true;
    // While the lock is held the thread cannot finish, so its id cannot be reused.
    const std::lock_guard lock(m_record->mutex);
    int policy = 0;
    sched_param parameters{};
    if (m_record->finished || pthread_getschedparam(thread, &policy, &parameters) != 0) return true;
    TRACE(2, "\nCThread::Kill: Killing a non-joinable thread 0x%08X", id);
    const int ret = pthread_cancel(thread);
    if (ret != 0) {
        TRACE(2, "\nCThread::Kill: unable to cancel a non-joinable thread 0x%08X (err = 0x%08x)",
              id, static_cast<unsigned>(ret));
        return false;
    }
    TRACE(2, "\nCThread::Kill: a non-joinable thread 0x%08X cancel invoked", id);
    return true;
}
