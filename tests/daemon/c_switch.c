/* A switch library in plain C with a hand-made table of virtual functions. With BARE_SWITCH it
 * lacks the two optional entry points. */
#include <unistd.h>

#include "kemd/module_switch_table.h"
#include "tests/daemon/script.h"

static void NeverCalled(void* self) {
    (void)self;
    Record("a slot that is never called");
}

/* Only the lowest byte is the answer, and any that is not 0 means yes. */
static unsigned Answer(int yes) {
    return yes ? 0x102 : 0xFFFFFF00;
}

static unsigned LoadModules(void* self, struct ModuleLoadParams* params) {
    Record("LoadModules flags=%u mode=%d", params->flags, (int)params->runMode);
    return Answer(self && !Scripted("fail-load"));
}

static unsigned UnloadModules(void* self, uint32_t options) {
    Record("UnloadModules options=%u", options);
    return Answer(self != NULL);
}

static void StartAllModules(void* self) {
    if (self) Record("StartAllModules");
    while (Scripted("block-start")) pause();
}

static void StopAllModules(void* self) {
    if (self) Record("StopAllModules");
}

static void NotifyModules(void* self, uint32_t code, void* data, uint32_t word) {
    (void)self;
    if (data) Record("NotifyModules code=0x%X data=%d word=%u", code, *(int32_t*)data, word);
    if (!data) Record("NotifyModules code=0x%X word=%u", code, word);
}

#define TWICE(slot) slot, slot
static const struct ModuleSwitchTable kTable = {
    .destructors = {TWICE(NeverCalled)},
    .loadModules = (bool (*)(void*, struct ModuleLoadParams*))(void (*)(void))LoadModules,
    .unloadModules = (bool (*)(void*, uint32_t))(void (*)(void))UnloadModules,
    .startAllModules = StartAllModules,
    .stopAllModules = StopAllModules,
    .reserved = {TWICE(TWICE(NeverCalled)), TWICE(TWICE(NeverCalled)), TWICE(NeverCalled)},
    .notifyModules = NotifyModules,
};
static const struct ModuleSwitchTable* object = &kTable;

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
