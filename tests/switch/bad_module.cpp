// A module with one fault in what it exports, chosen by the build.
#include "kemd/module.h"

extern "C" int KemdNewer();

[[maybe_unused]] static int Start() {
    return 0;
}

[[maybe_unused]] static void Stop() {}

KEMD_MODULE = {KEMD_MODULE_VERSION + BAD_VERSION, BAD_START, BAD_STOP, nullptr};
