#include "switch/switch_binding.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "base/library_file.h"
#include "base/library_search.h"
#include "trace/debug.h"

namespace {

constexpr const char* kLibrary = "libswitch.so";

template <typename Function>
void Resolve(void* library, const char* name, Function*& entry) {
    entry = reinterpret_cast<Function*>(dlsym(library, name));
}

// True when the call returned, false when it threw. The handler is left before anything else
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

// The same, and traces an exception.
template <typename Call>
bool ReturnsOrTraces(const char* operation, Call call) {
    if (ReturnsNormally(call)) return true;
    TRACE(1, "\nSWITCH DLL - Exception during %s", operation);
    return false;
}

// The start of the interface's virtual table. A library in another language returns 8 bits, any of
// which may be set: a C++ bool must not be read from them.
struct ByteTable {
    void (*destructors[2])(void* self);
    uint8_t (*loadModules)(void* self, ModuleLoadParams* params);
    uint8_t (*unloadModules)(void* self, uint32_t options);
};
static_assert(offsetof(ByteTable, unloadModules) == offsetof(ModuleSwitchTable, unloadModules));

const ByteTable& TableOf(IModuleSwitch* modules) {
    return **reinterpret_cast<const ByteTable**>(modules);
}

// Why the loader must not open the library that it would take: a file that is cut off would end the
// process. Empty when it may, and when that is unknown: then the loader decides.
std::string WhatHarmsLoader() try {
    for (const LibraryPlace& place : FindLibrary(kLibrary, std::getenv("LD_LIBRARY_PATH"))) {
        if (place.path.empty()) break;
        const LibraryFault fault = LookAtLibrary(place.path.c_str());
        if (fault.isOtherMachine) continue;
        return fault.harmsLoader ? place.path + ": " + fault.text : "";
    }
    return {};
} catch (const std::exception&) {
    return {};
}

}  // namespace

bool SwitchBinding::OpenLibrary() {
    const std::string fault = WhatHarmsLoader();
    if (!fault.empty()) return Fail(fault.c_str(), ENOEXEC);
    // dlopen is declared not to throw, but an initialiser of the library may. The volatile pointer
    // hides dlopen from the compiler, which would otherwise leave the handler out.
    void* (*volatile const open)(const char*, int) = dlopen;
    const bool returned =
        ReturnsNormally([&] { hLibrary = open(kLibrary, RTLD_NOW | RTLD_GLOBAL); });
    const int error = errno;
    if (hLibrary != nullptr) return true;
    return Fail(returned ? dlerror() : "libswitch.so: exception in an initialiser", error);
}

bool SwitchBinding::Fail(const char* reason, int32_t error) {
    std::snprintf(failure.data(), failure.size(), "%s", reason);
    TRACE(1, "LoadLibrary: ## ERROR:  %s\n", reason);
    lastError = error;
    return false;
}

bool SwitchBinding::Load() {
    if (hLibrary == nullptr && !OpenLibrary()) return pInterface != nullptr;
    Resolve(hLibrary, "SW_AddRef", pfnAddRef);
    Resolve(hLibrary, "SW_Release", pfnRelease);
    Resolve(hLibrary, "SW_QueryInterface", pfnQueryInterface);
    std::snprintf(failure.data(), failure.size(), "libswitch.so gives no interface to the modules");
    if (pfnQueryInterface == nullptr) return pInterface != nullptr;
    uint8_t found = 0;
    if (!ReturnsOrTraces("SW_QueryInterface", [&] { found = pfnQueryInterface(0, &pInterface); }) ||
        found == 0) {
        pInterface = nullptr;
    }
    return pInterface != nullptr;
}

bool SwitchBinding::LoadModules(ModuleLoadParams* params) {
    // Required: bit 0 is always shown, whatever was asked for.
    TRACE(3, "\nSWITCH API          : Loading modules, force rescan = %d",
          static_cast<int>(params->flags | kForceRescan));
    if (pInterface != nullptr) {
        uint8_t loaded = 0;
        const auto load = [&] { loaded = TableOf(pInterface).loadModules(pInterface, params); };
        if (ReturnsOrTraces("LoadModules", load)) return loaded != 0;
    }
    TRACE(1, "\n\nSWITCH API          : ## ERROR! Loading modules FAILED!\n");
    return false;
}

bool SwitchBinding::UnloadModules(uint32_t options) {
    TRACE(3, "\nSWITCH API          : Unloading modules...");
    if (pInterface != nullptr) {
        uint8_t done = 0;
        const auto unload = [&] { done = TableOf(pInterface).unloadModules(pInterface, options); };
        if (ReturnsOrTraces("UnloadModules", unload)) return done != 0;
    }
    TRACE(1, "\n\nSWITCH API          : ## ERROR! Unloading modules FAILED!\n");
    return false;
}

void SwitchBinding::Unload() {
    // The interface belongs to the library: it is not deleted. SW_Release drops the reference that
    // SW_QueryInterface handed out.
    pInterface = nullptr;
    if (pfnRelease != nullptr) (void)ReturnsOrTraces("SW_Release", [this] { pfnRelease(); });
    CloseLibrary();
}

void SwitchBinding::CloseLibrary() {
    pInterface = nullptr;
    if (void* library = std::exchange(hLibrary, nullptr)) dlclose(library);
    pfnAddRef = nullptr;
    pfnRelease = nullptr;
    pfnQueryInterface = nullptr;
}
