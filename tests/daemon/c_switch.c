/* A switch library in plain C, its table of virtual functions made by hand. With BARE_SWITCH it
 * lacks the two entry points that a library need not have. */
#include <stdbool.h>
#include <stdint.h>

#include "kemd/api.h"
#include "tests/daemon/script.h"

typedef void (*Slot)(void);

static void NeverCalled(void) {
    Record("a slot that nobody calls");
}

static bool LoadModules(const void* self, const uint32_t* params) {
    Record("LoadModules flags=%u mode=%d", params[0], (int)params[1]);
    return self && !Scripted("fail-load");
}

static bool UnloadModules(const void* self, uint32_t options) {
    Record("UnloadModules options=%u", options);
    return self;
}

static void StartAllModules(void) {
    Record("StartAllModules");
}

static void StopAllModules(void) {
    Record("StopAllModules");
}

static void NotifyModules(const void* self, uint32_t code, const int32_t* data, uint32_t word) {
    (void)self;
    if (data) Record("NotifyModules code=0x%X data=%d word=%u", code, *data, word);
    if (!data) Record("NotifyModules code=0x%X word=%u", code, word);
}

#define TWICE(slot) (Slot)(slot), (Slot)(slot)
static const Slot kTable[] = {
    TWICE(NeverCalled), /* the destructor pair */
    (Slot)LoadModules,  (Slot)UnloadModules, (Slot)StartAllModules, (Slot)StopAllModules,
    TWICE(NeverCalled), TWICE(NeverCalled),  TWICE(NeverCalled),    TWICE(NeverCalled),
    TWICE(NeverCalled), (Slot)NotifyModules,
};
static const Slot* object = kTable;

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
