/* An example module in C: traces every notification. */
#include "kemd/module.h"
#include "kemd/trace.h"

static const char* const kTag = "notifications";

static int Start(void) {
    KemdTrace(kTag, 2, "waiting for notifications");
    return 0;
}

static void Stop(void) {
    KemdTrace(kTag, 2, "stopped");
}

static void Notify(uint32_t code, const void* data) {
    if (data == 0) {
        KemdTrace(kTag, 2, "notification 0x%X", (unsigned)code);
    } else {
        KemdTrace(kTag, 2, "notification 0x%X, run level %d", (unsigned)code,
                  (int)*(const int32_t*)data);
    }
}

KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, Notify};
