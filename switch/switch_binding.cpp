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

bool SwitchBinding::Load() {
    if (hLibrary == nullptr) {
        hLibrary = dlopen("libswitch.so", RTLD_NOW | RTLD_GLOBAL);
        const int error = errno;
        if (hLibrary == nullptr) {
            TRACE(1, "LoadLibrary: ## ERROR:  %s\n", dlerror());
            lastError = error;
            return pInterface != nullptr;
        }
    }
    Resolve(hLibrary, "SW_AddRef", pfnAddRef);
    Resolve(hLibrary, "SW_Release", pfnRelease);
    Resolve(hLibrary, "SW_QueryInterface", pfnQueryInterface);
    if (pfnQueryInterface == nullptr) return pInterface != nullptr;
    bool found = false;
    if (!ReturnsNormally([&] { found = pfnQueryInterface(0, &pInterface); }) || !found) {
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
