// A module with one fault, chosen by the build.
#include <stdexcept>

#include "kemd/module.h"

static int Start() {
#if defined(BAD_START)
    return 42;
#elif defined(BAD_THROW)
    throw std::runtime_error("not today");
#else
    return 0;
#endif
}

[[maybe_unused]] static void Stop() {}

#if defined(BAD_SYMBOL)
extern "C" KEMD_API const KemdModule anotherName;
const KemdModule anotherName = {KEMD_MODULE_VERSION, Start, Stop, nullptr};
#elif defined(BAD_VERSION)
KEMD_MODULE = {KEMD_MODULE_VERSION + 1, Start, Stop, nullptr};
#elif defined(BAD_FUNCTION)
KEMD_MODULE = {KEMD_MODULE_VERSION, Start, nullptr, nullptr};
#else
KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, nullptr};
#endif
