#include "daemon/service.h"

#include <cxxabi.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <new>

#include "base/never_destroyed.h"
#include "base/process_setup.h"
#include "base/version.h"
#include "daemon/notify.h"
#include "daemon/process_guard.h"
#include "daemon/run_level.h"
#include "daemon/startup.h"
#include "kemd/exit_event.h"
#include "trace/debug.h"

namespace {

constinit NeverDestroyed<EventHandle> g_exitEvent;

EventHandle& CreateExitEvent() {
    CreateEvent(g_exitEvent.object, false, true, nullptr);
    return g_exitEvent.object;
}

// The loop's own reference to the exit event: whatever a module does to the common handle, the
// daemon can be stopped. Taking it here creates the event before `main`.
constinit NeverDestroyed<EventHandle> g_ownHandle;
EventHandle& g_ownExitEvent = g_ownHandle.object = ExitEvent();

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
    SetEvent(g_ownExitEvent);
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

// If waiting fails, nothing can ever stop this process: it stops now.
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

void StartModules(SwitchBinding& binding, ModuleLoadParams& params) {
    TRACE(2, "%s-MAIN: Load extension modules ...", kTag);
    const bool loaded = binding.LoadModules(&params);
    EndForkedChild();
    WatchForExit();
    if (!loaded) {
        TRACE(1, "%s-MAIN: ERROR! Load extension modules FAILED!", kTag);
        return;
    }
    TRACE(2, "%s-MAIN: ... extension modules loaded", kTag);
    TRACE(2, "%s-MAIN: Start all modules  ...", kTag);
    if (binding.pInterface != nullptr) binding.pInterface->StartAllModules();
    EndForkedChild();
    NoteExit();
    TRACE(2, "%s-MAIN: ... all modules started", kTag);
}

void FinishStartup() {
    sleep(1);
    Debug.Message("%s-MAIN: ## Done initializing ##\n", kTag);
    Debug.InitDone();
    NotifyReady();
}

void StopModules(SwitchBinding& binding) {
    TRACE(2, "%s-MAIN::OnExitService      : Stopping all modules...\n", kTag);
    if (binding.pInterface != nullptr) binding.pInterface->StopAllModules();
    EndForkedChild();
    TRACE(2, "%s-MAIN::OnExitService      : ... all modules stopped\n", kTag);
    TRACE(2, "%s-MAIN::OnExitService      : Start unload of all registered extension modules ...\n",
          kTag);
    ExpectTerminate();
    if (!binding.UnloadModules(0)) KeepModules();
    EndForkedChild();
    TRACE(2,
          "%s-MAIN::OnExitService      : ... unload of all registered extension modules "
          "completed!\n",
          kTag);
    binding.Unload();
    EndForkedChild();
    Debug.Message("%s-MAIN: ## EXIT PROCESS %s ##\n", kTag, kTag);
}

enum class Outcome { kDone, kNoMemory, kFailed };

template <typename Call>
Outcome Guarded(Call call) {
    try {
        call();
        return Outcome::kDone;
    } catch (const abi::__forced_unwind&) {
        throw;  // a cancelled thread, not a failure
    } catch (const std::exception& error) {
        Debug.Message("%s-MAIN: FATAL ERROR! Exception from Server Control SWITCH: %s\n", kTag,
                      error.what());
        if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return Outcome::kNoMemory;
    } catch (...) {
        Debug.Message("%s-MAIN: FATAL ERROR! Unknown exception from Server Control SWITCH\n", kTag);
    }
    return Outcome::kFailed;
}

// Closes the library after every exception handler is left, because an exception may live in it;
// also when a module ends the initial thread.
struct Cleanup {
    SwitchBinding& binding;

    explicit Cleanup(SwitchBinding& owned) : binding(owned) {}
    Cleanup(const Cleanup&) = delete;
    Cleanup& operator=(const Cleanup&) = delete;
    ~Cleanup() {
        EndForkedChild();  // if it came back by an exception
        binding.CloseLibrary();
        RemovePidFile();
    }
};

}  // namespace

// Created by the first call, which may come from the static initialisation of another file.
EventHandle& ExitEvent() {
    static EventHandle& handle = CreateExitEvent();
    return handle;
}

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
    } while (CheckEvent(g_ownExitEvent) == 0 && !g_stopDecided);
    NotifyStopping();  // no matter what set the event
    Debug.Message("%s-MAIN: ## Someone signaled exit state ##\n", kTag);
}

bool RunService(SwitchBinding& binding, ModuleLoadParams& params) {
    const Cleanup cleanup(binding);
    CreatePidFile();
    const Outcome run = Guarded([&] {
        StartModules(binding, params);
        FinishStartup();
        WaitForStop(binding.pInterface);
    });
    EndForkedChild();
    // After any other exception the state of the library is unknown. After std::bad_alloc the
    // modules that were started can still be stopped.
    const bool isStopped =
        run != Outcome::kFailed && Guarded([&] { StopModules(binding); }) == Outcome::kDone;
    if (!isStopped) KeepModules();
    return isStopped && run == Outcome::kDone;
}
