// The process-wide exit event: anonymous, manual reset, created unsignalled before `main` runs and
// never destroyed. The signal loop sets it when a stop is decided; if something else sets it, the
// loop ends at the next signal. Threads of modules may wait on it and set it. A module neither
// closes nor assigns it: all share it. The daemon itself uses a handle of its own.
#pragma once

#include "kemd/event.h"

KEMD_API EventHandle& ExitEvent();
