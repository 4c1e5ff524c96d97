// What the initial thread does between start-up and stop: it waits for signals.
#pragma once

#include "kemd/module_switch.h"

// SIGHUP switches tracing off and on, SIGALRM is ignored, SIGINT and SIGTERM find out the run
// level, notify the modules and set the exit event. Returns at the first signal after that event
// was set, by whomever. `modules` may be null. An exception of a module passes through.
void WaitForStop(IModuleSwitch* modules);
