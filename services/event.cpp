// The operations on an event that exists.
#include "kemd/event.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <ctime>

#include "services/event_object.h"
#include "trace/debug.h"

namespace {

bool IsUsable(const EventHandle& handle) {
    return handle.event != nullptr && !handle.closed;
}

// Counts a waiter in, and out again on every way out of the wait, thread cancellation included. The
// mutex is held both times.
class WaiterCount {
  public:
    explicit WaiterCount(EventObject& event) : m_event(event) { ++m_event.waiters; }
    ~WaiterCount() { --m_event.waiters; }
    WaiterCount(const WaiterCount&) = delete;
    WaiterCount& operator=(const WaiterCount&) = delete;

  private:
    EventObject& m_event;
};

int Wake(EventObject& event) {
    return event.IsManual ? pthread_cond_broadcast(&event.cond) : pthread_cond_signal(&event.cond);
}

// SetEvent and PulseEvent: wakes the waiters and leaves the event in the given state.
int Signal(EventHandle& handle, bool state, const char* text) KEMD_PRINTF(3, 0);
int Signal(EventHandle& handle, bool state, const char* text) {
    if (!IsUsable(handle)) return 0;
    EventObject& event = *handle.event;
    EventLock lock(event);
    TRACE(5, text, static_cast<void*>(&event), NameOf(event), StateOf(event));
    event.IsSignaled = state;
    const int ret = Wake(event);
    lock.Unlock();
    sched_yield();  // a woken thread may run at once
    return ret == 0 ? 1 : 0;
}

timespec DeadlineIn(uint32_t timeoutMs) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t nanoseconds = timeoutMs % 1000 * int64_t{1'000'000} + now.tv_nsec;
    return {now.tv_sec + timeoutMs / 1000 + nanoseconds / 1'000'000'000,
            nanoseconds % 1'000'000'000};
}

int WaitOnCondition(EventObject& event, uint32_t timeoutMs) {
    int ret = EINTR;
    if (timeoutMs == kWaitForever) {
        while (ret == EINTR) ret = pthread_cond_wait(&event.cond, &event.mutex);
        return ret;
    }
    const timespec deadline = DeadlineIn(timeoutMs);
    while (ret == EINTR) ret = pthread_cond_timedwait(&event.cond, &event.mutex, &deadline);
    return ret;
}

}  // namespace

int ReinitEvent(EventHandle& handle, bool initialState, bool manualReset) {
    if (!IsUsable(handle) || handle.event->waiters != 0) return 0;
    EventObject& event = *handle.event;
    if (event.IsSignaled == initialState && event.IsManual == manualReset) return 1;
    TRACE(5,
          "Create event %p <%s>, changing attributes (IsSignaled=%d,IsManual=%d) --> "
          "(IsSignaled=%d,IsManual=%d)\n",
          static_cast<void*>(&event), NameOf(event), StateOf(event), event.IsManual ? 1 : 0,
          initialState ? 1 : 0, manualReset ? 1 : 0);
    event.IsSignaled = initialState;
    event.IsManual = manualReset;
    return 1;
}

int CloseEvent(EventHandle& handle) {
    if (!IsUsable(handle)) return 0;
    EventObject& event = *handle.event;
    TRACE(5, "Close event %p <%s> IsSignaled=%d --> IsSignaled=1\n", static_cast<void*>(&event),
          NameOf(event), StateOf(event));
    handle.closed = true;
    {
        const EventLock lock(event);
        event.IsSignaled = true;
    }
    return Wake(event) == 0 ? 1 : 0;
}

int SetEvent(EventHandle& handle) {
    return Signal(handle, true, "Set event %p <%s> IsSignaled=%d --> IsSignaled=1\n");
}

int PulseEvent(EventHandle& handle) {
    return Signal(handle, false, "Pulse event %p <%s> IsSignaled=%d --> IsSignaled=0\n");
}

int ResetEvent(EventHandle& handle) {
    if (!IsUsable(handle)) return 0;
    EventObject& event = *handle.event;
    const EventLock lock(event);
    TRACE(5, "Reset event %p <%s>: IsSignaled=%d --> IsSignaled=0\n", static_cast<void*>(&event),
          NameOf(event), StateOf(event));
    event.IsSignaled = false;
    return 1;
}

int CheckEvent(EventHandle& handle) {
    if (!IsUsable(handle)) return 0;
    const int state = StateOf(*handle.event);
    TRACE(5, "Check event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(handle.event),
          NameOf(*handle.event), state);
    return state;
}

int WaitForEvent(EventHandle& handle, uint32_t timeoutMs) {
    if (!IsUsable(handle)) return kWaitFailed;
    EventObject& event = *handle.event;
    const EventLock lock(event);
    if (event.IsSignaled) {
        if (!event.IsManual) event.IsSignaled = false;
        return kWaitSignaled;
    }
    if (!lock.IsLocked()) return kWaitFailed;
    if (timeoutMs == 0) {
        pthread_testcancel();  // as the wait would be
        return kWaitTimedOut;
    }
    const WaiterCount waiter(event);
    const int ret = WaitOnCondition(event, timeoutMs);
    // Required: a wake-up counts also when the event is not signalled (any more). PulseEvent relies
    // on it, so there is no loop that checks again.
    if (ret == 0 || event.IsSignaled) {
        if (!event.IsManual) event.IsSignaled = false;
        return kWaitSignaled;
    }
    return ret == ETIMEDOUT ? kWaitTimedOut : kWaitFailed;
}
