/* A switch library in plain C, its table of virtual functions made by hand. With BARE_SWITCH it
 * lacks the two entry points that a library need not have. */
#include <stdbool.h>
#include <stdint.h>

#include "kemd/api.h"
#include "tests/daemon/script.h"

typedef void (*Slot)(void);

static void Destroy(void* self) {
    (void)self;
    Record("slot 0");
}

static void Dispose(void* self) {
    (void)self;
    Record("slot 1");
}

static bool LoadModules(void* self, const uint32_t* params) {
    (void)self;
    Record("LoadModules flags=%u mode=%d", params[0], (int)params[1]);
    return !Scripted("fail-load");
}

static bool UnloadModules(void* self, uint32_t options) {
    (void)self;
    Record("UnloadModules options=%u", options);
    return true;
}

static void StartAllModules(void* self) {
    (void)self;
    Record("StartAllModules");
}

static void StopAllModules(void* self) {
    (void)self;
    Record("StopAllModules");
}

static void Unused(void* self) {
    (void)self;
    Record("a slot between 6 and 15");
}

static void NotifyModules(void* self, uint32_t code, const int32_t* data, uint32_t word) {
    (void)self;
    if (data) {
        Record("NotifyModules code=0x%X data=%d word=%u", code, *data, word);
    } else {
        Record("NotifyModules code=0x%X word=%u", code, word);
    }
}

static const Slot table[] = {
    (Slot)Destroy,         (Slot)Dispose,        (Slot)LoadModules, (Slot)UnloadModules,
    (Slot)StartAllModules, (Slot)StopAllModules, (Slot)Unused,      (Slot)Unused,
    (Slot)Unused,          (Slot)Unused,         (Slot)Unused,      (Slot)Unused,
    (Slot)Unused,          (Slot)Unused,         (Slot)Unused,      (Slot)Unused,
    (Slot)NotifyModules,
};
static struct { const Slot* table; } object = {table};

KEMD_API bool SW_QueryInterface(int32_t identifier, void** interface) {
    Record("SW_QueryInterface identifier=%d", identifier);
    *interface = &object;
    return !Scripted("fail-query");
}

#ifndef BARE_SWITCH
KEMD_API void SW_AddRef(void) {
    Record("SW_AddRef");
}

KEMD_API void SW_Release(void) {
    Record("SW_Release");
}
#endif
