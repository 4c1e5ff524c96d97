#include "daemon/service.h"

#include <cxxabi.h>
#include <unistd.h>

#include <exception>
#include <new>

#include "daemon/notify.h"
#include "daemon/process_guard.h"
#include "daemon/signal_loop.h"
#include "daemon/startup.h"
#include "daemon/version.h"
#include "trace/debug.h"

namespace {

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

// Runs with every handler left, also when the initial thread itself is ended by a module: an
// exception may have lived in the library.
struct Cleanup {
    SwitchBinding& binding;

    explicit Cleanup(SwitchBinding& owned) : binding(owned) {}
    Cleanup(const Cleanup&) = delete;
    Cleanup& operator=(const Cleanup&) = delete;
    ~Cleanup() {
        EndForkedChild();  // which came back by an exception
        binding.CloseLibrary();
        RemovePidFile();
    }
};

}  // namespace

bool RunService(SwitchBinding& binding, ModuleLoadParams& params) {
    const Cleanup cleanup(binding);
    CreatePidFile();
    const Outcome run = Guarded([&] {
        StartModules(binding, params);
        FinishStartup();
        WaitForStop(binding.pInterface);
    });
    EndForkedChild();
    // After any other exception nobody knows what state the library is in. When memory has ended,
    // the modules that have started are stopped all the same.
    const bool isStopped =
        run != Outcome::kFailed && Guarded([&] { StopModules(binding); }) == Outcome::kDone;
    if (!isStopped) KeepModules();
    return isStopped && run == Outcome::kDone;
}
