/* What an extension module exports, in C: one constant object named kemdModule. Version 2, for
 * every new module:
 *
 *     static int Start(void* user) { ... return 0; }
 *     static void Stop(void* user) { ... }
 *     KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD,
 *                       .name = "fans", .moduleVersion = "1.0", .description = "Fan control",
 *                       .start = Start, .stop = Stop};
 *
 * The file is called fans.so, and the administrator's settings are in /etc/kemd/modules.d/fans.ini.
 *
 * Calls come one at a time, for all modules together, and should return soon: on the daemon's
 * initial thread when it starts and stops, and on another thread for what the administrator asks
 * while it runs (kemdctl modules). health and request come only between a start that succeeded and
 * its stop. Threads that a module starts inherit a signal mask in which SIGINT, SIGTERM, SIGHUP and
 * SIGALRM are blocked, because only the daemon takes them. They must have ended when `stop`
 * returns: the module is unloaded after it.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

/* The codes of `notify`. */
#define KEMD_NOTIFY_STOP 0x20000u     /* the daemon is about to stop; data is null */
#define KEMD_NOTIFY_SHUTDOWN 0x30000u /* the system goes down; data: const int32_t*, see below */
#define KEMD_RUN_LEVEL_HALT 0
#define KEMD_RUN_LEVEL_REBOOT 6

/* What `health` returns. */
#define KEMD_HEALTH_OK 0
#define KEMD_HEALTH_WARNING 1 /* it works, and somebody should look */
#define KEMD_HEALTH_FAILED 2  /* it does not do its work */

struct KemdConfig; /* the module's settings: kemd/config.h */

/* Takes the answer to a request. `write` appends to it and may be called any number of times during
 * the request; 0, or an errno number when the answer has become too long. */
struct KemdReply {
    int (*write)(struct KemdReply* reply, const char* text, size_t length);
};

#define KEMD_MODULE_VERSION_2 2u

/* Every pointer but `name` may be null. Members may be added at the end: `size` says how many a
 * module knows. */
struct KemdModuleV2 {
    uint32_t version; /* KEMD_MODULE_VERSION_2 */
    uint32_t size;    /* sizeof(struct KemdModuleV2) */
    /* The file's name without ".so": letters, digits, "-" and "_", at most 63. */
    const char* name;
    const char* moduleVersion;
    const char* description; /* one line */
    /* The names of modules that must run before this one starts, with a null at the end. */
    const char* const* startAfter;
    void* user; /* the first argument of every call */
    /* Before each start, and again when the administrator changed the settings: 0, or an errno
     * number; the module is then not started, or keeps the settings that it had. */
    int (*configure)(void* user, const struct KemdConfig* config);
    /* 0, or a number that is reported: the module is then left out and not stopped. */
    int (*start)(void* user);
    /* Called once for each successful start, after the modules that depend on this one. */
    void (*stop)(void* user);
    void (*notify)(void* user, uint32_t code, const void* data);
    /* One of KEMD_HEALTH_*; `text`: room for a line that says why, empty at the call. */
    int (*health)(void* user, char* text, size_t size);
    /* Something that the administrator asks of this module, as text: 0, or an errno number. */
    int (*request)(void* user, const char* text, struct KemdReply* reply);
};

#define KEMD_MODULE_V2_HEAD KEMD_MODULE_VERSION_2, (uint32_t)sizeof(struct KemdModuleV2)

/* Version 1: no name, no settings; still taken. */
#define KEMD_MODULE_VERSION 1u

struct KemdModule {
    /* KEMD_MODULE_VERSION */
    uint32_t version;
    /* 0 for success. Any other number is traced, and the module is left out and not stopped. */
    int (*start)(void);
    /* Called once for each successful start, in reverse order of the starts. */
    void (*stop)(void);
    /* May be null. */
    void (*notify)(uint32_t code, const void* data);
};

/* The binary interface of this version; a change gets a new version number. */
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, version) == 0, "slot of version");
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, start) == 8, "slot of start");
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, stop) == 16, "slot of stop");
KEMD_STATIC_ASSERT(offsetof(struct KemdModule, notify) == 24, "slot of notify");
KEMD_STATIC_ASSERT(sizeof(struct KemdModule) == 32, "size of the module's object");
KEMD_STATIC_ASSERT(offsetof(struct KemdModuleV2, name) == 8, "slot of name");
KEMD_STATIC_ASSERT(offsetof(struct KemdModuleV2, user) == 40, "slot of user");
KEMD_STATIC_ASSERT(offsetof(struct KemdModuleV2, request) == 88, "slot of request");
KEMD_STATIC_ASSERT(sizeof(struct KemdModuleV2) == 96, "size of version 2's object");

#ifdef __cplusplus
#define KEMD_MODULE                                         \
    extern "C" KEMD_API const struct KemdModule kemdModule; \
    const struct KemdModule kemdModule
#define KEMD_MODULE_V2                                        \
    extern "C" KEMD_API const struct KemdModuleV2 kemdModule; \
    const struct KemdModuleV2 kemdModule
#else
#define KEMD_MODULE KEMD_API const struct KemdModule kemdModule
#define KEMD_MODULE_V2 KEMD_API const struct KemdModuleV2 kemdModule
#endif
