// The daemon's work: the modules are loaded and started, signals are awaited, the modules are
// stopped and unloaded.
#pragma once

#include "switch/switch_binding.h"

// From the loaded binding to the closed library. False when an exception came out of the switch
// library: what it was is traced, the library is closed without a further call into it, unless
// memory had ended: then the modules are stopped and unloaded first.
[[nodiscard]] bool RunService(SwitchBinding& binding, ModuleLoadParams& params);
