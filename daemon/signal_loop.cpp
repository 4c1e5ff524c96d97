#include "daemon/signal_loop.h"

#include <csignal>
#include <cstdlib>

#include "base/never_destroyed.h"
#include "daemon/notify.h"
#include "daemon/process_guard.h"
#include "daemon/run_level.h"
#include "daemon/version.h"
#include "daemon/wait_signals.h"
#include "kemd/exit_event.h"
#include "trace/debug.h"

namespace {

// The loop's own reference to the exit event, taken before any module exists: what a module does to
// the common handle must not leave a daemon that cannot be stopped.
constinit NeverDestroyed<EventHandle> g_handle;
EventHandle& g_exitEvent = g_handle.object = ExitEvent();

int g_lastSignal = 0;  // by sigwait; readable in a core file
bool g_stopDecided = false;

void ToggleTrace() {
    Debug.Message("%s-MAIN: Signal %d (SIGHUP) caught\n", kTag, g_lastSignal);
    if (Debug.IsTraceOn()) {
        Debug.Message("%s-MAIN: Trace reset due to SIGHUP\n", kTag);
        Debug.SwitchTrace(false);
    } else {
        Debug.SwitchTrace(true);
        Debug.Message("%s-MAIN: Trace forced due to SIGHUP\n", kTag);
    }
}

void Notify(IModuleSwitch* modules, uint32_t code, void* data) {
    modules->NotifyModules(code, data, 0);
    EndForkedChild();
}

void DecideStop(IModuleSwitch* modules) {
    Debug.Message("%s-MAIN: Signal %d caught -> processing\n", kTag, g_lastSignal);
    NotifyStopping();
    int32_t runLevel = DetectRunLevel();
    Debug.Message("%s-MAIN: Current RunLevel = %d\n", kTag, runLevel);
    if (modules != nullptr) {
        Notify(modules, kNotifyStop, nullptr);
        if (runLevel == kRunLevelHalt || runLevel == kRunLevelReboot) {
            Notify(modules, kNotifyShutdown, &runLevel);
        }
    }
    SetEvent(g_exitEvent);
    g_stopDecided = true;
}

void Dispatch(IModuleSwitch* modules) {
    Debug.Message("\n%s-MAIN:  ... got signal %d", kTag, g_lastSignal);
    switch (g_lastSignal) {
        case SIGALRM:
            Debug.Message("%s-MAIN: WARNING: Signal %d (SIGALRM) caught -> ignoring\n", kTag,
                          g_lastSignal);
            break;
        case SIGHUP:
            ToggleTrace();
            break;
        case SIGINT:
        case SIGTERM:
            DecideStop(modules);
            break;
        default:
            DecideStop(modules);
            Debug.Message("%s-MAIN: Unexpected Signal %d caught -> ABORT\n", kTag, g_lastSignal);
            abort();
    }
}

// Waiting failed: nothing could ever stop this process, so it stops now.
void StopAfterError(IModuleSwitch* modules, int result) {
    Debug.Message("%s-MAIN: ## ERROR sigwait() failed (ret=%d) ##\n", kTag, result);
    Debug.Message(
        "%s-MAIN: ## ERROR This is Operating System BUG, since sigwait() should never return an "
        "error !!! ##\n",
        kTag);
    Debug.Message(
        "%s-MAIN: ## ERROR We do so as if SIGTERM has been sent to this process) --> Do Shutdown "
        "!!! ##\n",
        kTag);
    g_lastSignal = SIGTERM;
    DecideStop(modules);
}

}  // namespace

void WaitForStop(IModuleSwitch* modules) {
    const sigset_t signals = WaitSignals();
    Debug.Message("\n%s-MAIN:  Waiting for signals...", kTag);
    do {
        const int result = sigwait(&signals, &g_lastSignal);
        if (result == 0) {
            Dispatch(modules);
        } else {
            StopAfterError(modules, result);
        }
    } while (CheckEvent(g_exitEvent) == 0 && !g_stopDecided);
    NotifyStopping();  // whoever decided it
    Debug.Message("%s-MAIN: ## Someone signaled exit state ##\n", kTag);
}
