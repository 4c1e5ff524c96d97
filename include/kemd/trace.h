/* Tracing for extension modules, in C and C++. Any thread may call, at any time of the process, but
 * a signal handler must not: it may have interrupted the thread that holds the trace's lock. In a
 * child that a module forks tracing is off, and a call does nothing: a message that exec failed is
 * harmless there, and lost. Children of _Fork or clone, which run no handlers of pthread_atfork,
 * must not trace.
 *
 * Levels: 1 failures and major steps, 2 start-up details and decisions, 3 detailed steps, 5 object
 * life; 4 and 6 are free. `tag` names the module in every record; null stands for the daemon's own
 * name. A line feed at the end is added when it is missing; texts above 1,024 characters may be
 * cut. None of these functions fails or throws, and none is a thread cancellation point.
 */
#pragma once

#include <stdarg.h>
#include <stdint.h>

#include "kemd/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1 while tracing is on. */
KEMD_API int KemdTraceOn(void);

/* The trace level in force; 0: tracing is off. */
KEMD_API unsigned KemdTraceLevel(void);

/* Puts another level in force, until the settings are read again or SIGHUP switches. 0, or ENODEV
 * when records have nowhere to go, because tracing was off when the daemon started. For switch
 * libraries, on behalf of the administrator. */
KEMD_API int KemdTraceSetLevel(unsigned level);

/* From now on *shared is kept equal to KemdTraceLevel(), stored atomically, for a process that
 * reads it in shared memory. It must stay valid until null is passed, which ends it. For switch
 * libraries. */
KEMD_API void KemdTraceShareLevel(uint32_t* shared);

/* Writes one record of another process. `thread` stands in its prefix in place of the caller's; the
 * time is that of this call, which should come a few milliseconds after the record at most. Level 0
 * is a message, as KemdMessage writes it; others are filtered by the level in force. `text` is no
 * format. For switch libraries. */
KEMD_API void KemdTraceForward(const char* tag, unsigned level, uint32_t thread, const char* text);

/* Brings the files in use to the disk, which takes as long as the disk does: 0 or an errno number.
 * Others trace meanwhile. For switch libraries. */
KEMD_API int KemdTraceSync(void);

/* Writes one record when tracing is on and `level` is not above the trace level in force. */
KEMD_API void KemdTrace(const char* tag, unsigned level, const char* format, ...) KEMD_PRINTF(3, 4);
KEMD_API void KemdTraceV(const char* tag, unsigned level, const char* format, va_list args)
    KEMD_PRINTF(3, 0);

/* Writes one record whatever the trace level, also to the small persistent log file. */
KEMD_API void KemdMessage(const char* tag, const char* format, ...) KEMD_PRINTF(2, 3);
KEMD_API void KemdMessageV(const char* tag, const char* format, va_list args) KEMD_PRINTF(2, 0);

#ifdef __cplusplus
}
#endif
