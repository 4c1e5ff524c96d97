/* What an extension module exports, in C: one constant object named kemdModule.
 *
 *     static int Start(void) { ... return 0; }
 *     static void Stop(void) { ... }
 *     KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, NULL};
 *
 * All three functions are called on the daemon's initial thread, one module after the other, and
 * should return soon. Threads that a module starts inherit a signal mask in which SIGINT, SIGTERM,
 * SIGHUP and SIGALRM are blocked, because only the daemon takes them. They must have ended when
 * `stop` returns: the module is unloaded after it.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

#define KEMD_MODULE_VERSION 1u

struct KemdModule {
    /* KEMD_MODULE_VERSION; anything else is refused. */
    uint32_t version;
    /* 0 for success. Any other number is traced, and the module is left out and not stopped. */
    int (*start)(void);
    /* Called once for each successful start, in reverse order of the starts. */
    void (*stop)(void);
    /* May be null. 0x20000: the daemon is about to stop, data is null. 0x30000: the system halts or
     * reboots, data is the address of an int32_t, 0 for halt and 6 for reboot. */
    void (*notify)(uint32_t code, const void* data);
};

/* The binary interface of this version; a change gets a new version number. */
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, version) == 0, "slot of version");
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, start) == 8, "slot of start");
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, stop) == 16, "slot of stop");
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, notify) == 24, "slot of notify");
KEMD_STATIC_ASSERT(sizeof(struct KemdModule) == 32, "size of the module's object");

#ifdef __cplusplus
#define KEMD_MODULE                                         \
    extern "C" KEMD_API const struct KemdModule kemdModule; \
    const struct KemdModule kemdModule
#else
#define KEMD_MODULE KEMD_API const struct KemdModule kemdModule
#endif
