// The process-wide exit event: anonymous, manual reset, created unsignalled before `main` runs and
// never taken away. The signal loop sets it when a stop is decided and ends at the next signal
// after anybody did. Threads of modules may wait on it and set it; a module neither closes nor
// assigns it: it is everybody's, and the daemon goes on with a handle of its own.
#pragma once

#include "kemd/event.h"

KEMD_API EventHandle& ExitEvent();
