/* Series of a module in the performance monitor, in C: gauges and counters that the monitor samples
 * beside its own, for kemdctl performance. The module performance takes their values at each
 * sample; nothing is done for a value that changes in between.
 *
 *     static struct KemdSeries* sent;
 *     const struct KemdSeriesDescription description = {
 *         sizeof description, KEMD_SERIES_COUNTER, "backup_sent_bytes", "bytes", "Sent so far"};
 *     int error = KemdSeriesRegister(&sent, &description);
 *     ...
 *     KemdSeriesAdd(sent, length);
 *
 * Any thread may call. Nothing throws, and setting and adding cost one instruction. Results are 0
 * or an errno number. Texts are copied. Values live in memory that kemd keeps: nothing dangles when
 * a module is unloaded, and what it had not released is released then. A module with
 * Isolated = yes has them in the same way, and no other can damage them; when its process dies they
 * are dead until it runs again. In a child of a fork they are those of the parent.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KEMD_SERIES_GAUGE 0u      /* a whole number that goes up and down */
#define KEMD_SERIES_COUNTER 1u    /* only grows; shown as a rate */
#define KEMD_SERIES_REAL_GAUGE 2u /* a double that goes up and down */

struct KemdSeriesLabel {
    const char* name;  /* letters, digits and "_", no digit first, not "__" first, not "module" */
    const char* value; /* printable UTF-8 */
};

struct KemdSeriesDescription {
    uint32_t size; /* sizeof(struct KemdSeriesDescription) */
    uint32_t kind; /* KEMD_SERIES_ */
    /* As in OpenMetrics: letters, digits and "_", no digit first; ends with "_" and the unit when
     * there is one. Not "_total" or "_created", which an export adds to counters. */
    const char* name;
    const char* unit; /* a base unit: "bytes", "seconds", "celsius"; null or empty: none */
    const char* help; /* one line of printable UTF-8, may be null */
    /* Ended by one with a null name; null: none. Their order does not matter. */
    const struct KemdSeriesLabel* labels;
};

/* The value of one series. Only the functions below use its member. */
struct KemdSeries {
    uint64_t bits;
};

/* The value is 0 at first. kemd adds the label `module`: the name of the library that calls,
 * without
 * ".so"; name and labels together identify the series. EINVAL: the description is wrong in itself,
 * or the module has a series of this name with another kind or unit. ENAMETOOLONG: its texts are
 * longer than about 380 bytes together. EEXIST: the module has it already. ENOSPC: there are too
 * many, 2,047 of all modules in kemd's process or of one isolated module. ENOMEM. Then *series is
 * null, for which all others do nothing. */
KEMD_API int KemdSeriesRegister(struct KemdSeries** series,
                                const struct KemdSeriesDescription* description);
/* Not used after it by any thread. A module that registers in `start` releases in `stop`. */
KEMD_API void KemdSeriesRelease(struct KemdSeries* series);

/* Of a gauge; of a counter only by an amount that is not negative. */
static inline void KemdSeriesAdd(struct KemdSeries* series, int64_t amount) {
    if (series) __atomic_fetch_add(&series->bits, (uint64_t)amount, __ATOMIC_RELAXED);
}
/* For a counter that is counted elsewhere, too. */
static inline void KemdSeriesSet(struct KemdSeries* series, int64_t value) {
    if (series) __atomic_store_n(&series->bits, (uint64_t)value, __ATOMIC_RELAXED);
}
/* The following are for KEMD_SERIES_REAL_GAUGE alone. */
static inline void KemdSeriesSetReal(struct KemdSeries* series, double value) {
    uint64_t bits = 0;
    __builtin_memcpy(&bits, &value, sizeof bits);
    if (series) __atomic_store_n(&series->bits, bits, __ATOMIC_RELAXED);
}
static inline void KemdSeriesAddReal(struct KemdSeries* series, double amount) {
    if (!series) return;
    uint64_t old = __atomic_load_n(&series->bits, __ATOMIC_RELAXED);
    uint64_t sum = 0;
    do {
        double value = 0;
        __builtin_memcpy(&value, &old, sizeof value);
        value += amount;
        __builtin_memcpy(&sum, &value, sizeof sum);
    } while (!__atomic_compare_exchange_n(&series->bits, &old, sum, 1, __ATOMIC_RELAXED,
                                          __ATOMIC_RELAXED));
}

/* For programs that show or keep series: those of all modules, isolated ones too. In the process of
 * an isolated module only its own. */

#define KEMD_SERIES_DEAD 1u /* the process of its module has died and was not started again */

struct KemdSeriesValue {
    uint64_t id; /* of this registration, never of another */
    uint64_t bits;
    uint32_t flags; /* KEMD_SERIES_DEAD */
    uint32_t reserved;
};
/* Stores at most `room` of them and returns how many there are. */
KEMD_API size_t KemdSeriesValues(struct KemdSeriesValue* values, size_t room);

struct KemdSeriesInfo {
    uint32_t size; /* sizeof(struct KemdSeriesInfo), set by the caller */
    uint32_t kind;
    char module[64];
    char name[384];
    char unit[384];
    char help[384];
    char labels[1024]; /* `module="backup",disk="sda"`, with `\\` and `\"` */
};
/* ENOENT: it is gone, or what an isolated module has left in its place makes no sense. EINVAL. */
KEMD_API int KemdSeriesDescribe(uint64_t id, struct KemdSeriesInfo* info);

/* For switch libraries. */

/* A descriptor, for the caller to close, of memory for the series of the isolated module `module`,
 * whose process is about to be started; those of its process before are gone. Or a negative errno
 * number. */
KEMD_API int KemdSeriesShare(const char* module);
/* The process of this isolated module has died. */
KEMD_API void KemdSeriesMarkDead(const char* module);
/* The module is about to be unloaded, or its process ended in order: releases its series. */
KEMD_API void KemdSeriesForget(const char* module);

#ifdef __cplusplus
}
#endif
