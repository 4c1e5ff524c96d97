// The three entry points by which the daemon finds the switch library.
#include <atomic>

#include "kemd/api.h"
#include "module_switch.h"

static ModuleSwitch g_switch;
static std::atomic<int> g_references{0};

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
