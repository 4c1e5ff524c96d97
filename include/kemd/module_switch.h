// The interface between the daemon and the switch library `libswitch.so`.
//
// The library exports SW_AddRef, SW_Release and SW_QueryInterface (C linkage) and implements
// IModuleSwitch. All calls come from the daemon's initial thread. The object belongs to the
// library: the daemon drops its reference with SW_Release and never deletes it. See
// docs/switch-interface.md.
#pragma once

#include <cstdint>

#include "kemd/module_switch_table.h"

enum ModuleLoadFlags : uint32_t { kForceRescan = 1 };

enum RunMode : int32_t {
    kRunModeNormal = 0,
    kRunModeAgentless = 5,
    kRunModeInstall = 7,  // installation manager
    kRunModeUpdate = 8,   // update manager
};

enum ModuleNotification : uint32_t {
    kNotifyStop = 0x20000,      // the daemon is stopping; no data
    kNotifyShutdown = 0x30000,  // the system halts or reboots; data: int32_t run level, 0 or 6
};

// The slot numbers of the virtual table are the binary interface: the table of
// kemd/module_switch_table.h may be used in place of this class. Do not reorder; add only at the
// end.
class IModuleSwitch {
  public:
    virtual ~IModuleSwitch() = default;  // slots 0 and 1

    virtual bool LoadModules(ModuleLoadParams* params) = 0;  // 2: true when the modules were loaded
    virtual bool UnloadModules(uint32_t options) = 0;        // 3: the daemon passes 0
    virtual void StartAllModules() = 0;                      // 4
    virtual void StopAllModules() = 0;                       // 5

    // 6 to 15: not called by the daemon.
    virtual void Reserved6() {}
    virtual void Reserved7() {}
    virtual void Reserved8() {}
    virtual void Reserved9() {}
    virtual void Reserved10() {}
    virtual void Reserved11() {}
    virtual void Reserved12() {}
    virtual void Reserved13() {}
    virtual void Reserved14() {}
    virtual void Reserved15() {}

    // 16: `word` is always 0. `data` is valid during the call.
    virtual void NotifyModules(uint32_t code, void* data, uint32_t word) = 0;
};

static_assert(sizeof(IModuleSwitch) == sizeof(void*), "size of IModuleSwitch");
