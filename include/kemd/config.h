/* A module's settings: the section [Settings] of /etc/kemd/modules.d/NAME.ini, which the
 * administrator writes. A module reads them in its `configure`; the file is read then, and the
 * `config` is gone when the call returns.
 *
 * Each call stores `fallback` when the file, the section or the key is missing, and returns 0. A
 * value that is there and wrong is reported in the trace with file, section, key and what is
 * allowed; the call then stores `fallback` too, and returns EINVAL (it cannot be read so) or ERANGE
 * (outside the range, or too long). No call throws.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

#ifdef __cplusplus
extern "C" {
#endif

struct KemdConfig;

/* A whole number in decimal, from `least` to `most`. */
KEMD_API int KemdConfigNumber(const struct KemdConfig* config, const char* key, int64_t fallback,
                              int64_t least, int64_t most, int64_t* out);
/* "yes", "true", "on", "1" or "no", "false", "off", "0", in any case of letters. */
KEMD_API int KemdConfigBool(const struct KemdConfig* config, const char* key, int fallback,
                            int* out);
/* A time in milliseconds: a number with "ms", "s", "m", "h" or "d"; without a unit seconds. */
KEMD_API int KemdConfigTime(const struct KemdConfig* config, const char* key, int64_t fallbackMs,
                            int64_t leastMs, int64_t mostMs, int64_t* outMs);
/* A size in bytes: a number with "K", "M" or "G" (1,024 each); without a unit bytes. */
KEMD_API int KemdConfigSize(const struct KemdConfig* config, const char* key, int64_t fallback,
                            int64_t least, int64_t most, int64_t* out);
/* Text of less than `size` bytes. */
KEMD_API int KemdConfigText(const struct KemdConfig* config, const char* key, const char* fallback,
                            char* out, size_t size);
/* One of the words in `words`, which ends with a null: its index. */
KEMD_API int KemdConfigWord(const struct KemdConfig* config, const char* key, int fallback,
                            const char* const* words, int* out);

/* For programs that load modules: the settings in `section` of `file`; `module` is the tag of what
 * is reported. The three must live as long as the config. Null when there is no memory. */
KEMD_API struct KemdConfig* KemdConfigOpen(const char* file, const char* section,
                                           const char* module);
KEMD_API void KemdConfigClose(struct KemdConfig* config);

#ifdef __cplusplus
}
#endif
