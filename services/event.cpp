#include "kemd/event.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "base/cancel_guard.h"
#include "base/never_destroyed.h"
#include "base/recursive_mutex.h"
#include "services/event_object.h"
#include "services/name_registry.h"
#include "trace/debug.h"

namespace {

// For message texts.
const char* NameOf(const char* name) {
    return name != nullptr ? name : "anon";
}
const char* NameOf(const EventObject& event) {
    return NameOf(event.name);
}
int StateOf(const EventObject& event) {
    return event.IsSignaled ? 1 : 0;
}

// Holds an event's mutex. When locking fails, the operation goes on without the lock.
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

// The reference lock is taken before the table's own lock.
constinit NeverDestroyed<RecursiveMutex> g_referenceLock;
constinit NeverDestroyed<EventRegistry> g_events;

bool JoinNamed(EventHandle& handle, bool manualReset, const char* name) {
    auto* event = static_cast<EventObject*>(g_events.object.Find(name));
    if (event == nullptr) return false;
    handle.event = event;
    ++event->refCount;
    TRACE(3, "refCount for event %p <%s> incremented (IsSignaled=%d)\n", static_cast<void*>(event),
          NameOf(*event), StateOf(*event));
    if (event->IsManual != manualReset) {
        TRACE(1, "WARNING: manual setting mismatch for event %p <%s>\n", static_cast<void*>(event),
              NameOf(*event));
    }
    return true;
}

// Traces why an event could not be made. The event itself has no name yet.
bool Fail(const EventObject& event, const char* name, const char* text, int ret) {
    TRACE(3, text, ret, static_cast<const void*>(&event), NameOf(name), StateOf(event));
    return false;
}

bool InitMutex(EventObject& event, const char* name) {
    const int ret = pthread_mutex_init(&event.mutex, nullptr);
    if (ret == 0) return true;
    // Required: the text names the clock although this step is the mutex.
    return Fail(event, name,
                "pthread_mutex_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p "
                "<%s> (IsSignaled=%d)\n",
                ret);
}

bool InitCondition(EventObject& event, const char* name) {
    int ret = pthread_condattr_setclock(&event.condAttr, CLOCK_MONOTONIC);
    if (ret != 0) {
        return Fail(event, name,
                    "pthread_condattr_setclock(): ## ERROR ##: Set CLOCK_MONOTONIC failed (ret=%d) "
                    "for event %p <%s> (IsSignaled=%d)\n",
                    ret);
    }
    ret = pthread_cond_init(&event.cond, &event.condAttr);
    if (ret != 0) {
        return Fail(event, name,
                    "pthread_cond_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event "
                    "%p <%s> (IsSignaled=%d)\n",
                    ret);
    }
    if (InitMutex(event, name)) return true;
    pthread_cond_destroy(&event.cond);
    return false;
}

// All or nothing.
bool InitSynchronisation(EventObject& event, const char* name) {
    pthread_condattr_init(&event.condAttr);
    if (InitCondition(event, name)) return true;
    pthread_condattr_destroy(&event.condAttr);
    return false;
}

void Destroy(EventObject* event) {
    pthread_cond_destroy(&event->cond);
    pthread_condattr_destroy(&event->condAttr);
    pthread_mutex_destroy(&event->mutex);
    std::free(event->name);
    delete event;
}

EventObject* NewEvent(bool initialState, bool manualReset, const char* name) {
    auto* event = new (std::nothrow) EventObject{};
    if (event == nullptr) return nullptr;
    event->IsManual = manualReset;
    event->refCount = 1;
    event->IsSignaled = initialState;
    if (!InitSynchronisation(*event, name)) {
        delete event;
        return nullptr;
    }
    if (name == nullptr) return event;
    event->name = strdup(name);
    if (event->name == nullptr || !g_events.object.Put(name, event)) {
        Destroy(event);
        return nullptr;
    }
    return event;
}

void WaitUntilUnused(EventObject& event) {
    for (;;) {
        {
            const EventLock lock(event);
            if (event.waiters == 0) return;
        }
        sleep(1);
    }
}

// True when other handles remain. The last one takes the event out of the table.
bool DropReference(EventObject& event) {
    const RecursiveLock lock(g_referenceLock.object);
    if (event.refCount == 1) {
        event.refCount = 0;
        if (event.name != nullptr) g_events.object.Remove(event.name);
        return false;
    }
    --event.refCount;
    // Still under the lock: after it another thread may free the event at any time.
    TRACE(5, "decr refcount on event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(&event),
          NameOf(event), StateOf(event));
    return true;
}

// Drops the handle's reference; the handle keeps its pointer.
void Release(EventObject* event) {
    const CancelGuard guard;
    if (event == nullptr || DropReference(*event)) return;
    WaitUntilUnused(*event);
    TRACE(5, "deleting event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(event), NameOf(*event),
          StateOf(*event));
    Destroy(event);
}

void CopyHandle(EventHandle& target, const EventHandle& source) {
    const CancelGuard guard;
    const RecursiveLock lock(g_referenceLock.object);
    target.closed = false;
    target.event = source.event;
    if (source.event == nullptr) return;
    ++source.event->refCount;
    TRACE(5, "incr refcount on event %p <%s> (IsSignaled=%d,IsManual=%d)\n",
          static_cast<void*>(source.event), NameOf(*source.event), StateOf(*source.event),
          source.event->IsManual ? 1 : 0);
}

void JoinOrCreate(EventHandle& handle, bool initialState, bool manualReset, const char* name) {
    if (name == nullptr) {
        handle.event = NewEvent(initialState, manualReset, name);
    } else {
        const RecursiveLock lock(g_referenceLock.object);
        if (JoinNamed(handle, manualReset, name)) return;
        handle.event = NewEvent(initialState, manualReset, name);
    }
    if (handle.event == nullptr) return;
    TRACE(5, "creating event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(handle.event),
          NameOf(name), initialState ? 1 : 0);
}

bool IsUsable(const EventHandle& handle) {
    return handle.event != nullptr && !handle.closed;
}

// Counts a waiter until the wait ends in any way, thread cancellation included. The mutex is held
// at both ends.
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

EventHandle::~EventHandle() {
    Release(event);
}

EventHandle::EventHandle(const EventHandle& source) {
    CopyHandle(*this, source);
}

EventHandle& EventHandle::operator=(const EventHandle& source) {
    if (this == &source) return *this;
    EventObject* const previous = event;
    CopyHandle(*this, source);
    Release(previous);
    return *this;
}

void CreateEvent(EventHandle& handle, bool initialState, bool manualReset, const char* name) {
    const CancelGuard guard;
    // Released last: it may be the event of this very name, which then lives on.
    EventObject* const previous = std::exchange(handle.event, nullptr);
    handle.closed = false;
    JoinOrCreate(handle, initialState, manualReset, name);
    Release(previous);
}

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
    // Required: a wake-up counts even when the event is no longer signalled. PulseEvent relies on
    // it, so no loop checks again.
    if (ret == 0 || event.IsSignaled) {
        if (!event.IsManual) event.IsSignaled = false;
        return kWaitSignaled;
    }
    return ret == ETIMEDOUT ? kWaitTimedOut : kWaitFailed;
}
