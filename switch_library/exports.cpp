// The three entry points by which the daemon finds the switch library, and what the library has the
// trace say when a module ends the process.
#include <atomic>
#include <cstdlib>
#include <exception>

#include "kemd/api.h"
#include "switch_library/module_switch.h"

static ModuleSwitch g_switch;
static std::atomic<int> g_references{0};

// In force from the load of this library to its end.
static class EndReport {
  public:
    EndReport() {
        m_previous = std::set_terminate(ReportTerminate);
        (void)std::at_quick_exit([] { g_switch.ReportEnd("the process is ended"); });
    }
    ~EndReport() { std::set_terminate(m_previous); }
    EndReport(const EndReport&) = delete;
    EndReport& operator=(const EndReport&) = delete;

  private:
    [[noreturn]] static void ReportTerminate() {
        g_switch.ReportEnd(
            "std::terminate, for an exception that nobody catches or a thread that was not joined,");
        m_previous();
        std::abort();
    }

    static inline std::terminate_handler m_previous = nullptr;
} g_endReport;

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
