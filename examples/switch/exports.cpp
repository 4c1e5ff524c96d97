// The three entry points by which the daemon finds the switch library, and what the library has the
// trace say when a module ends the process.
#include <atomic>
#include <cstdlib>
#include <exception>

#include "kemd/api.h"
#include "module_switch.h"

static void ReportExit();
static ModuleSwitch g_switch(ReportExit);
static std::atomic<int> g_references{0};

static void ReportExit() {
    g_switch.ReportEnd("the process is ended");
}

// From the load of this library to its end.
static struct TerminateReport {
    static inline std::terminate_handler previous = nullptr;

    [[noreturn]] static void Report() {
        g_switch.ReportEnd(
            "std::terminate, for an exception that nobody catches or a thread that was not joined,");
        previous();
        std::abort();
    }
    TerminateReport() { previous = std::set_terminate(Report); }
    TerminateReport(const TerminateReport&) = delete;
    TerminateReport& operator=(const TerminateReport&) = delete;
    ~TerminateReport() { std::set_terminate(previous); }
} g_terminateReport;

extern "C" {

KEMD_API void SW_AddRef() {
    ++g_references;
}

// The last reference: nothing of a module may be left behind, whoever forgot to unload.
KEMD_API void SW_Release() {
    if (--g_references == 0) g_switch.UnloadModules(0);
}

// `identifier` 0 is the module-control interface, the only one. Hands out a reference.
KEMD_API bool SW_QueryInterface(int32_t identifier, IModuleSwitch** interface) {
    if (identifier != 0 || interface == nullptr) return false;
    SW_AddRef();
    *interface = &g_switch;
    return true;
}

}  // extern "C"
