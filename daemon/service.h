// The daemon's work: load and start the modules, wait for signals, stop and unload the modules.
// Initial thread.
#pragma once

#include "switch/switch_binding.h"

// From the loaded binding to the closed library. False when an exception came out of the switch
// library: it is traced, and the library is closed without another call into it. Only after
// std::bad_alloc are the modules stopped and unloaded first.
[[nodiscard]] bool RunService(SwitchBinding& binding, ModuleLoadParams& params);

// Waits for signals: SIGHUP switches tracing off and on, SIGALRM is ignored, SIGINT and SIGTERM
// determine the run level, notify the modules and set the exit event. Returns after the signal that
// sets the event, or at the first one after something else set it. `modules` may be null. An
// exception of a module passes through.
void WaitForStop(IModuleSwitch* modules);
