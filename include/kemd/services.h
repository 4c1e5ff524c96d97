/* The daemon's support library in C, for modules in any language: events, semaphores, profile
 * files, the registry and what /proc says about a process. Handles are opaque; no C++ type
 * crosses this interface.
 *
 * Any thread may call, with handles of its own: one handle must not be closed while another thread
 * uses it. Nothing throws. Functions that return `int` return 0 on success and otherwise an errno
 * number, unless stated otherwise. Texts end with a NUL and are UTF-8 or plain bytes, as stored.
 * Handles that a module made must be closed when its `stop` returns.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "kemd/api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KEMD_WAIT_FOREVER 0xFFFFFFFFu

/* Events: signalled or not; manual reset (stays signalled, wakes every waiter) or auto reset (one
 * wait that succeeds consumes the signal). */
struct KemdEvent;

/* A new event, or with a name (may be null) the one of that name in the process, which keeps its
 * state and kind. Null when there is no memory. */
KEMD_API struct KemdEvent* KemdEventOpen(const char* name, int isManual, int isSignalled);
/* Gives up the handle; null does nothing. The last handle of an event frees it. */
KEMD_API void KemdEventClose(struct KemdEvent* event);
KEMD_API int KemdEventSet(struct KemdEvent* event);
KEMD_API int KemdEventReset(struct KemdEvent* event);
/* Wakes those that wait now and leaves the event unsignalled. */
KEMD_API int KemdEventPulse(struct KemdEvent* event);
/* 1 signalled, 0 not. Does not consume the signal. */
KEMD_API int KemdEventIsSet(struct KemdEvent* event);
/* Waits at most `timeoutMs` milliseconds: 0 signalled, ETIMEDOUT, or another errno number. A thread
 * cancellation point. */
KEMD_API int KemdEventWait(struct KemdEvent* event, uint32_t timeoutMs);
/* The event that is set when the daemon is about to stop: manual reset. Not to be closed. */
KEMD_API struct KemdEvent* KemdExitEvent(void);

/* Counting semaphores within the process. */
struct KemdSemaphore;

/* Null when there is no memory or `count` is above SEM_VALUE_MAX. */
KEMD_API struct KemdSemaphore* KemdSemaphoreOpen(uint32_t count);
KEMD_API void KemdSemaphoreClose(struct KemdSemaphore* semaphore);
/* Takes one unit and waits for it as long as it takes. A thread cancellation point. */
KEMD_API int KemdSemaphoreTake(struct KemdSemaphore* semaphore);
/* Takes one unit when there is one: 0, otherwise EAGAIN. */
KEMD_API int KemdSemaphoreTryTake(struct KemdSemaphore* semaphore);
KEMD_API int KemdSemaphoreGive(struct KemdSemaphore* semaphore, uint32_t count);

/* Profile files: sections "[name]", entries "key = value", comments from a semicolon on. Every call
 * reads the file again. */

/* The value, as far as it fits `size` bytes with its NUL; `fallback` (may be null: empty) when the
 * file, section or key is missing. Returns the length of what was stored. A null key lists the keys
 * of the section, a null section the sections: names that each end with a NUL, the last with two.
 */
KEMD_API size_t KemdProfileRead(const char* file, const char* section, const char* key,
                                const char* fallback, char* out, size_t size);
/* Sets the value and makes file, section and entry when they are missing. A null value deletes the
 * entry, a null key the section. EIO when the file could not be written; it is then as it was. */
KEMD_API int KemdProfileWrite(const char* file, const char* section, const char* key,
                              const char* value);

/* The registry: a tree of keys with values, one for the whole process, kept in a file. A handle is
 * one open key. Paths begin with a root key: "HKEY_LOCAL_MACHINE/SOFTWARE/kemd". */
struct KemdRegistryKey;

/* What a value is. Expandable text has %NAME% for environment variables, and is read with them. */
#define KEMD_REGISTRY_TEXT 1u
#define KEMD_REGISTRY_EXPANDABLE_TEXT 2u
#define KEMD_REGISTRY_BINARY 3u
#define KEMD_REGISTRY_NUMBER 4u

/* ENOENT when there is no such key, unless `make` is not 0: then keys that are missing below the
 * root key are made. */
KEMD_API int KemdRegistryOpen(struct KemdRegistryKey** key, const char* path, int make);
/* Null does nothing. Writes changes back; KemdRegistrySave says whether that succeeded. */
KEMD_API void KemdRegistryClose(struct KemdRegistryKey* key);
/* Replaces each root key that the registry file has, with all below it, in one step;
 * KemdRegistrySave brings that to the disk. ENODATA when the file holds no registry, or why it, or
 * the registry itself before, could not be read whole: nothing has changed then. For switch
 * libraries. */
KEMD_API int KemdRegistryImport(const char* file);
/* The changed tree is on disk when it returns 0. */
KEMD_API int KemdRegistrySave(void);
/* A text with its NUL. `size`: the buffer's bytes; then the bytes that the value needs, with
 * ERANGE when that is more. ENOENT when there is no such value, or one of another type. */
KEMD_API int KemdRegistryReadText(struct KemdRegistryKey* key, const char* name, char* out,
                                  size_t* size);
KEMD_API int KemdRegistryReadBinary(struct KemdRegistryKey* key, const char* name, void* out,
                                    size_t* size);
KEMD_API int KemdRegistryReadNumber(struct KemdRegistryKey* key, const char* name, int32_t* out);
KEMD_API int KemdRegistryWriteText(struct KemdRegistryKey* key, const char* name, const char* text);
KEMD_API int KemdRegistryWriteBinary(struct KemdRegistryKey* key, const char* name,
                                     const void* data, size_t size);
KEMD_API int KemdRegistryWriteNumber(struct KemdRegistryKey* key, const char* name, int32_t number);
/* A value, or a subkey with all below it. ENOENT when there is none. */
KEMD_API int KemdRegistryDelete(struct KemdRegistryKey* key, const char* name);
/* The name of the subkey or value with this index, from 0, in the order of the names; ENOENT after
 * the last. `size` as above; `type` may be null. */
KEMD_API int KemdRegistrySubkeyName(struct KemdRegistryKey* key, uint32_t index, char* out,
                                    size_t* size);
KEMD_API int KemdRegistryValueName(struct KemdRegistryKey* key, uint32_t index, char* out,
                                   size_t* size, uint32_t* type);

/* Processes. */
struct KemdMemory {
    uint64_t size; /* bytes of address space */
    uint64_t peak; /* the largest it had */
    uint64_t swap;
    uint64_t resident;
};
/* `size`: sizeof(struct KemdMemory); of an older caller's shorter one only that is filled.
 * ESRCH when there is no such process. */
KEMD_API int KemdProcessMemory(pid_t pid, struct KemdMemory* memory, size_t size);
/* The first process with this command name; -1 when there is none. */
KEMD_API pid_t KemdProcessFind(const char* name);
/* The path of its program, `size` as above. */
KEMD_API int KemdProcessProgram(pid_t pid, char* out, size_t* size);

#ifdef __cplusplus
}
#endif
