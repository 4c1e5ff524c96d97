#include "kemd/exit_event.h"

#include "base/never_destroyed.h"

namespace {

constinit NeverDestroyed<EventHandle> g_handle;

EventHandle& Create() {
    CreateEvent(g_handle.object, false, true, nullptr);
    return g_handle.object;
}

}  // namespace

// The static object of whichever file asks first creates the event; the one below sees to it that
// somebody does.
EventHandle& ExitEvent() {
    static EventHandle& handle = Create();
    return handle;
}

[[maybe_unused]] static EventHandle& g_createdBeforeMain = ExitEvent();
