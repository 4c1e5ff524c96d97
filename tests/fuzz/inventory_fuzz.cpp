// Arbitrary bytes as a saved inventory. What is taken is written and read back the same.
#include "inventory/host_inventory.h"
#include "inventory/store.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KemdInventory inventory;
    std::string fault;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (ParseInventory(text, inventory, fault) != 0) {
        Require(!fault.empty(), "a fault without a text");
        return 0;
    }
    const std::string json = InventoryJson(inventory);
    KemdInventory again;
    Require(ParseInventory(json, again, fault) == 0, "what was written is not read");
    Require(InventoryJson(again) == json, "what was read is different");
    return 0;
}
