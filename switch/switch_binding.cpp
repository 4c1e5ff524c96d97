#include "switch/switch_binding.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cerrno>
#include <utility>

#include "trace/debug.h"

namespace {

template <typename Function>
void Resolve(void* library, const char* name, Function*& entry) {
    entry = reinterpret_cast<Function*>(dlsym(library, name));
}

// Calls into the library and tells whether it came back. The handler is left before anything else
// happens: the exception may live in the library.
template <typename Call>
bool ReturnsNormally(Call call) {
    try {
        call();
        return true;
    } catch (const abi::__forced_unwind&) {  // a cancelled thread, not a failure
        throw;
    } catch (...) {
        return false;
    }
}

}  // namespace

bool SwitchBinding::OpenLibrary() {
    // The declaration of dlopen promises not to throw, but an initialiser of the library may. The
    // compiler must not see whom it calls, or it leaves the handler out.
    void* (*volatile const open)(const char*, int) = dlopen;
    const bool returned =
        ReturnsNormally([&] { hLibrary = open("libswitch.so", RTLD_NOW | RTLD_GLOBAL); });
    const int error = errno;
    if (hLibrary != nullptr) return true;
    failure = returned ? dlerror() : "libswitch.so: exception in an initialiser";
    TRACE(1, "LoadLibrary: ## ERROR:  %s\n", failure);
    lastError = error;
    return false;
}

bool SwitchBinding::Load() {
    if (hLibrary == nullptr && !OpenLibrary()) return pInterface != nullptr;
    Resolve(hLibrary, "SW_AddRef", pfnAddRef);
    Resolve(hLibrary, "SW_Release", pfnRelease);
    Resolve(hLibrary, "SW_QueryInterface", pfnQueryInterface);
    failure = "libswitch.so gives no interface to the modules";
    if (pfnQueryInterface == nullptr) return pInterface != nullptr;
    uint8_t found = 0;
    if (!ReturnsNormally([&] { found = pfnQueryInterface(0, &pInterface); }) || found == 0) {
        pInterface = nullptr;
    }
    return pInterface != nullptr;
}

bool SwitchBinding::LoadModules(ModuleLoadParams* params) {
    // Required: bit 0 is always shown, whatever was asked for.
    TRACE(3, "\nSWITCH API          : Loading modules, force rescan = %d",
          static_cast<int>(params->flags | kForceRescan));
    if (pInterface != nullptr) {
        bool loaded = false;
        if (ReturnsNormally([&] { loaded = pInterface->LoadModules(params); })) return loaded;
        TRACE(1, "\nSWITCH DLL - Exception during LoadModules");
    }
    TRACE(1, "\n\nSWITCH API          : ## ERROR! Loading modules FAILED!\n");
    return false;
}

bool SwitchBinding::UnloadModules(uint32_t options) {
    TRACE(3, "\nSWITCH API          : Unloading modules...");
    if (pInterface != nullptr) {
        bool unloaded = false;
        if (ReturnsNormally([&] { unloaded = pInterface->UnloadModules(options); })) {
            return unloaded;
        }
        TRACE(1, "\nSWITCH DLL - Exception during UnloadModules");
    }
    TRACE(1, "\n\nSWITCH API          : ## ERROR! Unloading modules FAILED!\n");
    return false;
}

void SwitchBinding::Unload() {
    // The interface belongs to the library: it is forgotten, not disposed of. SW_Release drops the
    // reference that SW_QueryInterface handed out.
    pInterface = nullptr;
    if (pfnRelease != nullptr) (void)ReturnsNormally([this] { pfnRelease(); });
    CloseLibrary();
}

void SwitchBinding::CloseLibrary() {
    pInterface = nullptr;
    if (void* library = std::exchange(hLibrary, nullptr)) dlclose(library);
    pfnAddRef = nullptr;
    pfnRelease = nullptr;
    pfnQueryInterface = nullptr;
}
