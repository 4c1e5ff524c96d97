// What differs between two inventories, or between two states of one item.
#pragma once

#include <string>
#include <vector>

#include "inventory/host_inventory.h"

struct FieldDifference {
    InventoryField field;
    std::string before;  // values of a list with ", " between
    std::string after;
    bool wasThere;
    bool isThere;
};

// One that is in both has other fields, or another parent.
struct ItemDifference {
    const KemdInventoryItem* before;  // null: new
    const KemdInventoryItem* after;   // null: gone
    std::vector<FieldDifference> fields;
};

// Empty when nothing counts. What changes by itself counts only `withVolatile`.
std::vector<FieldDifference> CompareItems(const KemdInventoryItem& before,
                                          const KemdInventoryItem& after, bool withVolatile);
// In sections that both have: what is gone, then what is new or changed, in the order of the items.
std::vector<ItemDifference> CompareInventories(const KemdInventory& before,
                                               const KemdInventory& after, bool withVolatile);
// Hands one to a callback of the C interface.
void DeliverChange(const ItemDifference& difference, KemdInventoryOnChange onChange, void* user);
