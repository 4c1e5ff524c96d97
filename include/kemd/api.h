/* Marks what the executable offers to extension modules.
 *
 * kemd is built with hidden symbols and exports only what carries KEMD_API, so that a helper of
 * the daemon can never take the place of a module's own function of the same name. What carries
 * it does: modules are built with -fvisibility=hidden and show nothing but kemdModule.
 */
#pragma once

/* The version of these headers: major * 10000 + minor * 100. A module that is compiled with older
 * ones too leaves out what they do not declare:
 *
 *     #if KEMD_INTERFACE_VERSION >= 10100
 *
 * A module that uses something newer than the daemon is not loaded. Symbols that the module
 * declares weak are null there instead:
 *
 *     #pragma weak KemdNewer
 *     if (KemdNewer != NULL) KemdNewer();
 */
#define KEMD_INTERFACE_VERSION 10000

#define KEMD_API __attribute__((visibility("default")))

/* Lets the compiler check a printf-style call: the text's and the first value's argument number,
 * counted from 1 (in a C++ member function `this` is number 1). */
#define KEMD_PRINTF(text, values) __attribute__((format(printf, text, values)))

/* A statement about the binary interface that the compiler proves, in C and C++. */
#ifdef __cplusplus
#define KEMD_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define KEMD_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif
