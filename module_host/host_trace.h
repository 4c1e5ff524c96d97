// What modules trace goes to standard error at once: no trace file of the daemon is touched.
#pragma once

// Shows every message, and the records up to `level` (0: none). Call it before a module is loaded.
void TraceToStandardError(unsigned level);
