// The daemon's handle on the switch library `libswitch.so`, the plug-in loader: opens it, resolves
// its entry points and guards the two calls that may fail inside it. See docs/switch-interface.md.
//
// A plain record, all zero at first, that lives in `main`; only the initial thread uses it. It does
// not own the interface object. Nothing throws.
#pragma once

#include <array>
#include <cstdint>

#include "kemd/module_switch.h"

struct SwitchBinding {
    void (*pfnAddRef)();   // resolved, never called
    void (*pfnRelease)();  // null when the library has none
    // A bool, tested as the 8 bits that a library in another language returns.
    uint8_t (*pfnQueryInterface)(int32_t identifier, IModuleSwitch** interface);
    void* hLibrary;                 // from dlopen; null while closed
    IModuleSwitch* pInterface;      // belongs to the library; null while not obtained
    int32_t lastError;              // errno right after a failed dlopen
    std::array<char, 512> failure;  // why Load failed

    // Opens the library unless it is open and asks for the interface. True when there is one.
    [[nodiscard]] bool Load();
    [[nodiscard]] bool LoadModules(ModuleLoadParams* params);
    bool UnloadModules(uint32_t options);
    // The orderly end: drops the library's reference and closes it.
    void Unload();
    [[nodiscard]] bool OpenLibrary();
    // Keeps and traces the reason; returns false.
    bool Fail(const char* reason, int32_t error);
    // Every other end: closes the library without another call into it.
    void CloseLibrary();
};
