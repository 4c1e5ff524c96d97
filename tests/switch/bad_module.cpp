// A module with one fault in what it exports, chosen by the build.
#include "kemd/module.h"

static int Start() {
    return 0;
}

[[maybe_unused]] static void Stop() {}

KEMD_MODULE = {KEMD_MODULE_VERSION + BAD_VERSION, Start, BAD_STOP, nullptr};
