// The daemon's work: the modules are loaded and started, signals are awaited, the modules are
// stopped and unloaded. Initial thread.
#pragma once

#include "switch/switch_binding.h"

// From the loaded binding to the closed library. False when an exception came out of the switch
// library: what it was is traced, the library is closed without a further call into it, unless
// memory had ended: then the modules are stopped and unloaded first.
[[nodiscard]] bool RunService(SwitchBinding& binding, ModuleLoadParams& params);

// SIGHUP switches tracing off and on, SIGALRM is ignored, SIGINT and SIGTERM find out the run
// level, notify the modules and set the exit event. Returns at the first signal after that event
// was set, by whomever. `modules` may be null. An exception of a module passes through.
void WaitForStop(IModuleSwitch* modules);
