/* The daemon's trace object as its virtual table shows it, for modules in any language that were
 * written for the object. All others use kemd/trace.h.
 *
 *     Debug.table->message(&Debug, "%d disks", disks);
 *
 * `self` is the address of Debug. Who may call, and what becomes of a text: see kemd/trace.h.
 */
#pragma once

#include <stdarg.h>
#include <stddef.h>

#include "kemd/api.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

struct KemdTraceTable {
    void (*destructors[2])(void* self); /* never called: the object lives as long as the process */
    bool (*isAvailable)(const void* self);
    bool (*init)(void* self, const char* moduleName); /* only the daemon calls it */
    void (*trace)(void* self, unsigned level, const char* format, ...);
    /* Whatever the level, also to the small persistent log file. */
    void (*message)(void* self, const char* format, ...);
    void (*levelMessage)(void* self, unsigned level, const char* format, ...);
    /* `tag` names the module in the record; null stands for the daemon's own name. */
    void (*messageV)(void* self, const char* format, va_list args, const char* tag);
    /* Whatever the level, while tracing is on. */
    void (*traceV)(void* self, const char* format, va_list args, const char* tag);
};

#define KEMD_TRACE_SLOT(operation, number)                                                     \
    KEMD_STATIC_ASSERT(offsetof(struct KemdTraceTable, operation) == (number) * sizeof(void*), \
                       "slot of " #operation)
KEMD_TRACE_SLOT(isAvailable, 2);
KEMD_TRACE_SLOT(trace, 4);
KEMD_TRACE_SLOT(message, 5);
KEMD_TRACE_SLOT(levelMessage, 6);
KEMD_TRACE_SLOT(messageV, 7);
KEMD_TRACE_SLOT(traceV, 8);
#undef KEMD_TRACE_SLOT

/* What follows the table is the daemon's own. */
struct KemdTraceObject {
    const struct KemdTraceTable* table;
};

extern KEMD_API struct KemdTraceObject Debug;
