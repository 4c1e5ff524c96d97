// Event objects: signalled or not, manual reset (stays signalled, wakes every waiter) or auto reset
// (one successful wait consumes the signal), anonymous or shared by name within the process.
//
// Any thread may call any operation; one handle must not be destroyed or assigned while another
// thread uses it (give each thread a copy). Nothing throws. WaitForEvent is a cancellation point.
// Unless stated otherwise an operation returns 1 on success and 0 on failure, and fails on a handle
// that is empty or closed.
#pragma once

#include <atomic>
#include <cstdint>

#include "kemd/api.h"

struct EventObject;

inline constexpr int kWaitSignaled = 0;
inline constexpr int kWaitTimedOut = 102;
inline constexpr int kWaitFailed = -1;
inline constexpr uint32_t kWaitForever = 0xFFFFFFFF;

// One counted reference to an event. Destroying the last one frees the event, after waiting for
// the threads that still wait on it.
struct KEMD_API EventHandle {
    constexpr EventHandle() = default;
    ~EventHandle();
    // A copy is open even if the source was closed, and empty if it was empty. Assigning gives up
    // the reference held before.
    EventHandle(const EventHandle& source);
    EventHandle& operator=(const EventHandle& source);

    EventObject* event = nullptr;  // null when the handle is empty
    std::atomic<bool> closed{false};
};

// Fills in the handle: a new event, or the existing one of that name, which then keeps its own
// state and reset mode. `name` may be null. The handle is empty on failure. A reference that it
// held before is given up last, so that an event of the same name survives if this was its last
// handle.
KEMD_API void CreateEvent(EventHandle& handle, bool initialState, bool manualReset,
                          const char* name);
// Gives an event new attributes; fails while threads wait on it.
KEMD_API int ReinitEvent(EventHandle& handle, bool initialState, bool manualReset);
// Wakes the waiters; every later operation on this handle fails. Keeps the reference.
KEMD_API int CloseEvent(EventHandle& handle);
KEMD_API int SetEvent(EventHandle& handle);
// Wakes the threads that wait now and leaves the event unsignalled.
KEMD_API int PulseEvent(EventHandle& handle);
KEMD_API int ResetEvent(EventHandle& handle);
// The state, 1 or 0; never consumes the signal.
KEMD_API int CheckEvent(EventHandle& handle);
// Waits at most `timeoutMs` milliseconds; kWaitSignaled, kWaitTimedOut or kWaitFailed.
KEMD_API int WaitForEvent(EventHandle& handle, uint32_t timeoutMs);

static_assert(sizeof(EventHandle) == 16, "size of EventHandle");
