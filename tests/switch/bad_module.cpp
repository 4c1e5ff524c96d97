// A module with one fault, chosen by the build.
#include <stdexcept>

#include "kemd/module.h"

static int Start() {
#ifdef BAD_THROW
    throw std::runtime_error("not today");
#endif
#ifdef BAD_START
    return 42;
#endif
    return 0;
}

[[maybe_unused]] static void Stop() {}

#ifdef BAD_SYMBOL
#define kemdModule anotherName
#endif
#ifdef BAD_VERSION
KEMD_MODULE = {KEMD_MODULE_VERSION + 1, Start, Stop, nullptr};
#elif defined(BAD_FUNCTION)
KEMD_MODULE = {KEMD_MODULE_VERSION, Start, nullptr, nullptr};
#else
KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, nullptr};
#endif
