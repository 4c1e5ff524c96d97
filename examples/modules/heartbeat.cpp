// An example module: a thread of its own traces one record a second. When the module is stopped, an
// event ends the pause between two records at once.
#include <system_error>
#include <thread>

#include "kemd/event.h"
#include "kemd/module.h"
#include "kemd/trace.h"

static constexpr const char* kTag = "heartbeat";

static EventHandle g_stop;
static std::thread g_thread;

static void Beat() {
    for (unsigned beat = 1; WaitForEvent(g_stop, 1000) == kWaitTimedOut; ++beat) {
        KemdTrace(kTag, 3, "beat %u", beat);
    }
}

static int Start() {
    CreateEvent(g_stop, false, true, nullptr);
    if (g_stop.event == nullptr) return 1;
    try {
        g_thread = std::thread(Beat);
    } catch (const std::system_error& error) {
        KemdMessage(kTag, "no thread: %s", error.what());
        return 2;
    }
    return 0;
}

static void Stop() {
    SetEvent(g_stop);
    g_thread.join();
}

KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, nullptr};
