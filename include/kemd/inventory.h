/* The host's hardware and volumes in C: all of it at one moment (an inventory), what differs
 * between two of them, and changes as they happen (a watch). Handles are opaque; no C++ type
 * crosses this interface.
 *
 * An inventory is a list of items: a PCI function, a drive, a memory module, a partition ... An
 * item has a kind, an id that stays the same from one boot to the next, the id of the item that it
 * sits in, and fields; docs/inventory-fields.md lists all kinds and fields.
 *
 * Any thread may call, with handles of its own; one inventory may be read by several at once.
 * Nothing throws. Functions that return `int` return 0 on success and otherwise an errno number.
 * Texts end with a NUL and are what firmware, kernel and drives say: they need not be UTF-8, but
 * have no control characters. What a function returns by pointer lives as long as its inventory.
 * Structures begin with `size`, which the caller sets to sizeof of what it has.
 * Nothing here needs rights; what only root may read is absent otherwise, and a note says so.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* All items at one moment. */
struct KemdInventory;
/* One of them; belongs to its inventory. */
struct KemdInventoryItem;

/* Sections: what to look at. */
#define KEMD_INVENTORY_SYSTEM 1u    /* firmware, board, processors, power, kernel, ports */
#define KEMD_INVENTORY_MEMORY 2u    /* memory modules and where they sit */
#define KEMD_INVENTORY_SLOTS 4u     /* expansion slots and what they hold */
#define KEMD_INVENTORY_PCI 8u       /* PCI functions */
#define KEMD_INVENTORY_USB 16u      /* USB devices */
#define KEMD_INVENTORY_DRIVES 32u   /* drives and storage adapters */
#define KEMD_INVENTORY_NETWORK 64u  /* network interfaces with hardware */
#define KEMD_INVENTORY_VOLUMES 128u /* partitions, md, LVM, encrypted volumes, mounts, swap */
/* Not a section: asks drives for their health too. Drives in standby are not woken. */
#define KEMD_INVENTORY_HEALTH 256u
#define KEMD_INVENTORY_ALL 0xFFFFFFFFu

/* Never fails as a whole, but for ENOMEM: what cannot be read is absent, and a note says why. */
KEMD_API int KemdInventoryScan(struct KemdInventory** inventory, uint32_t sections);
/* The next one after `last`, which may be null, stays the caller's and is not needed afterwards.
 * With KEMD_INVENTORY_HEALTH: of a drive that says nothing about its health, as it sleeps or does
 * not answer, what `last` has is copied, and "health_time" says when it was true. With `onlyNew`
 * other than 0 drives that were asked for `last` are not asked again: questions that come often may
 * keep a drive awake. */
KEMD_API int KemdInventoryRescan(struct KemdInventory** inventory, uint32_t sections,
                                 const struct KemdInventory* last, int onlyNew);
/* One that KemdInventorySave wrote. EBADMSG when the file holds something else, EFBIG when it has
 * more than 64 MiB. */
KEMD_API int KemdInventoryLoad(struct KemdInventory** inventory, const char* path);
/* Replaces the file whole or leaves it as it was; mode 0600. EFBIG when it would have more than
 * 64 MiB. */
KEMD_API int KemdInventorySave(const struct KemdInventory* inventory, const char* path);
/* Null does nothing. */
KEMD_API void KemdInventoryRelease(struct KemdInventory* inventory);

/* When it was taken, in seconds since 1970, and which sections it has. */
KEMD_API int64_t KemdInventoryTime(const struct KemdInventory* inventory);
KEMD_API uint32_t KemdInventorySections(const struct KemdInventory* inventory);
/* What could not be read, a line for each reason, as for a user: "drive:sda: health: Permission
 * denied". Null after the last. */
KEMD_API const char* KemdInventoryNote(const struct KemdInventory* inventory, size_t position);
/* What needs attention: "PCI 0000:03:00.0 runs with 4 of 8 lanes". Null after the last. */
KEMD_API const char* KemdInventoryWarning(const struct KemdInventory* inventory, size_t position);

/* Items in the order in which they were found, those of one section together; null after the last.
 */
KEMD_API const struct KemdInventoryItem* KemdInventoryAt(const struct KemdInventory* inventory,
                                                         size_t position);
/* Null when there is none, as the next. */
KEMD_API const struct KemdInventoryItem* KemdInventoryById(const struct KemdInventory* inventory,
                                                           const char* id);
/* What the item sits in: a drive in its adapter, a partition on its drive. */
KEMD_API const struct KemdInventoryItem* KemdInventoryParent(const struct KemdInventory* inventory,
                                                             const struct KemdInventoryItem* item);
KEMD_API uint32_t KemdInventoryItemSection(const struct KemdInventoryItem* item);
KEMD_API const char* KemdInventoryItemKind(const struct KemdInventoryItem* item);
KEMD_API const char* KemdInventoryItemId(const struct KemdInventoryItem* item);
/* As for a user: "sda", "0000:00:1f.2", "DIMM_A1". */
KEMD_API const char* KemdInventoryItemName(const struct KemdInventoryItem* item);

#define KEMD_INVENTORY_TEXT 0u
#define KEMD_INVENTORY_NUMBER 1u
#define KEMD_INVENTORY_YES 2u /* a number, 0 or 1 */

#define KEMD_INVENTORY_LIST 1u     /* an item may have several values of it */
#define KEMD_INVENTORY_PRIVATE 2u  /* tells this one machine from others: serial numbers ... */
#define KEMD_INVENTORY_VOLATILE 4u /* changes by itself: temperatures, free space ... */

struct KemdInventoryField {
    uint32_t size;
    uint32_t kind;    /* KEMD_INVENTORY_TEXT ... */
    uint32_t flags;   /* KEMD_INVENTORY_LIST ... */
    const char* name; /* as in JSON: "link_width" */
    const char* unit; /* "bytes"; empty for none */
    const char* text; /* a number in decimal */
    uint64_t number;  /* 0 for a text */
};
/* The fields that the item has; ENOENT after the last, and when it has none of that name. */
KEMD_API int KemdInventoryFieldAt(const struct KemdInventoryItem* item, size_t position,
                                  struct KemdInventoryField* field);
/* The first value. */
KEMD_API int KemdInventoryFieldByName(const struct KemdInventoryItem* item, const char* name,
                                      struct KemdInventoryField* field);

/* Changes: an item that is new, gone, or the same with other fields or in another place. */
struct KemdInventoryFieldChange {
    const char* name;
    uint32_t flags;     /* KEMD_INVENTORY_LIST ... */
    const char* before; /* values of a list with ", " between; null: it had none */
    const char* after;  /* null: it has none */
};
struct KemdInventoryChange {
    uint32_t size;
    uint32_t fieldCount;                    /* 0 for one that is new, gone, or only has moved */
    const struct KemdInventoryItem* before; /* null: new */
    const struct KemdInventoryItem* after;  /* null: gone */
    const struct KemdInventoryFieldChange* fields;
};
/* All that `change` points to is valid until the callback returns. */
typedef void (*KemdInventoryOnChange)(void* user, const struct KemdInventoryChange* change);

/* Calls `onChange` for each item that differs, in sections that both have. Fields that change by
 * themselves count only with `withVolatile` other than 0. */
KEMD_API int KemdInventoryCompare(const struct KemdInventory* before,
                                  const struct KemdInventory* after, int withVolatile,
                                  KemdInventoryOnChange onChange, void* user);

/* A thread that watches. */
struct KemdInventoryWatch;

/* From now on calls `onChange`, in a thread of its own, when drives, partitions, volumes, mounts,
 * PCI and USB devices (`sections`, of KEMD_INVENTORY_PCI, _USB, _DRIVES and _VOLUMES) come, go or
 * change. When events were lost, what differs after a new scan is delivered. */
KEMD_API int KemdInventoryWatchOpen(struct KemdInventoryWatch** watch, uint32_t sections,
                                    KemdInventoryOnChange onChange, void* user);
/* Ends the thread and waits for it: not from the callback. Null does nothing. */
KEMD_API void KemdInventoryWatchClose(struct KemdInventoryWatch* watch);

#ifdef __cplusplus
}
#endif
