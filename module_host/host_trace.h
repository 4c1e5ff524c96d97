// What the module's trace records do in the host: see host_trace.cpp.
#pragma once

// Before the module is loaded. 0: messages only.
void SetTraceLevel(unsigned level);
