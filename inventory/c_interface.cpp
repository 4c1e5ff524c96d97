// kemd/inventory.h, but for the watch.
#include <cerrno>
#include <memory>

#include "base/answer.h"
#include "inventory/difference.h"
#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "inventory/store.h"

namespace {

const char* TextAt(const std::vector<std::string>& texts, size_t position) {
    return position < texts.size() ? texts[position].c_str() : nullptr;
}

int StoreField(const KemdInventoryItem::Value& value, KemdInventoryField* out) {
    const InventoryFieldInfo& info = value.field.Info();
    const KemdInventoryField field = {sizeof field, info.kind,          info.flags,  info.name,
                                      info.unit,    value.text.c_str(), value.number};
    return StoreRecord(field, out);
}

}  // namespace

int KemdInventoryScan(KemdInventory** inventory, uint32_t sections) {
    return KemdInventoryRescan(inventory, sections, nullptr, 0);
}

int KemdInventoryRescan(KemdInventory** inventory, uint32_t sections, const KemdInventory* last,
                        int onlyNew) {
    if (inventory == nullptr) return EINVAL;
    *inventory = nullptr;
    return Guarded([&] {
        auto scanned = std::make_unique<KemdInventory>();
        ScanHost(*scanned, sections, last, onlyNew != 0);
        *inventory = scanned.release();
        return 0;
    });
}

int KemdInventoryLoad(KemdInventory** inventory, const char* path) {
    if (inventory == nullptr || path == nullptr) return EINVAL;
    *inventory = nullptr;
    return Guarded([&] {
        auto loaded = std::make_unique<KemdInventory>();
        std::string fault;
        const int error = LoadInventory(path, *loaded, fault);
        if (error == 0) *inventory = loaded.release();
        return error;
    });
}

int KemdInventorySave(const KemdInventory* inventory, const char* path) {
    if (inventory == nullptr || path == nullptr) return EINVAL;
    return Guarded([&] { return SaveInventory(*inventory, path); });
}

void KemdInventoryRelease(KemdInventory* inventory) {
    delete inventory;
}

int64_t KemdInventoryTime(const KemdInventory* inventory) {
    return inventory == nullptr ? 0 : inventory->time;
}

uint32_t KemdInventorySections(const KemdInventory* inventory) {
    return inventory == nullptr ? 0 : inventory->sections;
}

const char* KemdInventoryNote(const KemdInventory* inventory, size_t position) {
    return inventory == nullptr ? nullptr : TextAt(inventory->notes, position);
}

const char* KemdInventoryWarning(const KemdInventory* inventory, size_t position) {
    return inventory == nullptr ? nullptr : TextAt(inventory->warnings, position);
}

const KemdInventoryItem* KemdInventoryAt(const KemdInventory* inventory, size_t position) {
    const bool isThere = inventory != nullptr && position < inventory->items.size();
    return isThere ? &inventory->items[position] : nullptr;
}

const KemdInventoryItem* KemdInventoryById(const KemdInventory* inventory, const char* id) {
    return inventory == nullptr || id == nullptr ? nullptr : inventory->Find(id);
}

const KemdInventoryItem* KemdInventoryParent(const KemdInventory* inventory,
                                             const KemdInventoryItem* item) {
    const bool hasParent = inventory != nullptr && item != nullptr && !item->parent.empty();
    return hasParent ? inventory->Find(item->parent) : nullptr;
}

uint32_t KemdInventoryItemSection(const KemdInventoryItem* item) {
    return item == nullptr ? 0 : KindSection(item->kind);
}

const char* KemdInventoryItemKind(const KemdInventoryItem* item) {
    return item == nullptr ? nullptr : KindWord(item->kind);
}

const char* KemdInventoryItemId(const KemdInventoryItem* item) {
    return item == nullptr ? nullptr : item->id.c_str();
}

const char* KemdInventoryItemName(const KemdInventoryItem* item) {
    return item == nullptr ? nullptr : item->name.c_str();
}

int KemdInventoryFieldAt(const KemdInventoryItem* item, size_t position,
                         KemdInventoryField* field) {
    if (item == nullptr) return EINVAL;
    return position < item->values.size() ? StoreField(item->values[position], field) : ENOENT;
}

int KemdInventoryFieldByName(const KemdInventoryItem* item, const char* name,
                             KemdInventoryField* field) {
    if (item == nullptr || name == nullptr) return EINVAL;
    const std::optional<InventoryField> known = InventoryField::Find(name);
    const KemdInventoryItem::Value* const value = known ? item->Find(*known) : nullptr;
    return value == nullptr ? ENOENT : StoreField(*value, field);
}

int KemdInventoryCompare(const KemdInventory* before, const KemdInventory* after, int withVolatile,
                         KemdInventoryOnChange onChange, void* user) {
    if (before == nullptr || after == nullptr || onChange == nullptr) return EINVAL;
    return Guarded([&] {
        for (const ItemDifference& difference :
             CompareInventories(*before, *after, withVolatile != 0)) {
            DeliverChange(difference, onChange, user);
        }
        return 0;
    });
}
