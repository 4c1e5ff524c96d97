/* The interface between the daemon and the switch library as C sees it: the virtual table of
 * IModuleSwitch (kemd/module_switch.h), for a switch library that builds it by hand.
 *
 *     static const struct ModuleSwitchTable kTable = {.loadModules = Load, ...};
 *     static const struct ModuleSwitchTable* object = &kTable;
 *
 * SW_QueryInterface then stores the address of `object`, and every slot gets that address as
 * `self`. The slots that the daemon calls must be filled; the others may be null.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

/* What the command line asks for; owned by the caller, valid during the call. */
struct ModuleLoadParams {
    uint32_t flags;  /* bit 0: force a rescan of the installed modules */
    int32_t runMode; /* a RunMode of kemd/module_switch.h; 0: normal */
};
KEMD_STATIC_ASSERT(sizeof(struct ModuleLoadParams) == 8, "size of the parameters");

struct ModuleSwitchTable {
    void (*destructors[2])(void* self); /* never called */
    bool (*loadModules)(void* self, struct ModuleLoadParams* params);
    bool (*unloadModules)(void* self, uint32_t options);
    void (*startAllModules)(void* self);
    void (*stopAllModules)(void* self);
    void (*reserved[10])(void* self); /* not called by the daemon */
    void (*notifyModules)(void* self, uint32_t code, void* data, uint32_t word);
};

#define KEMD_SWITCH_SLOT(operation, number)                                                       \
    KEMD_STATIC_ASSERT(offsetof(struct ModuleSwitchTable, operation) == (number) * sizeof(void*), \
                       "slot of " #operation)
KEMD_SWITCH_SLOT(loadModules, 2);
KEMD_SWITCH_SLOT(unloadModules, 3);
KEMD_SWITCH_SLOT(startAllModules, 4);
KEMD_SWITCH_SLOT(stopAllModules, 5);
KEMD_SWITCH_SLOT(notifyModules, 16);
#undef KEMD_SWITCH_SLOT
