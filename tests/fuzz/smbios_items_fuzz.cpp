// Feeds arbitrary tables to what makes items of them, and joins slots with arbitrary records.
#include <set>
#include <string>

#include "inventory/host_inventory.h"
#include "inventory/smbios_items.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The revision, then the table.
    if (size < 2) return 0;
    CSMBios smbios;
    SmbiosData tables;
    tables.entryPoint = {'_', 'S', 'M', '3', '_', 0, 24, data[0], data[1]};
    tables.entryPoint.resize(24);
    tables.table.assign(data + 2, data + size);
    tables.table.shrink_to_fit();
    (void)smbios.Connect(std::move(tables));
    KemdInventory inventory;
    SmbiosItems items(inventory, smbios);
    items.AddSystem();
    items.AddMemory();
    items.AddSlots();
    JoinSlotMap(inventory, {{data[0], data[1], data[size - 1], 6}},
                PciSlotSource::kIrqRoutingTable);
    std::set<std::string> ids;
    for (const KemdInventoryItem& item : inventory.items) {
        Require(ids.insert(item.id).second, "an id that is there twice");
        const KemdInventoryItem* const parent = inventory.Find(item.parent);
        Require(item.parent.empty() || parent != nullptr, "a parent that is not there");
        Require(parent == nullptr || parent->kind != item.kind, "items in each other");
    }
    Require(inventory.items.size() <= size / 4 + 1, "more items than structures");
    return 0;
}
