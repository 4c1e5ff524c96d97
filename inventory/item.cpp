#include "inventory/item.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "base/text.h"

namespace {

struct KindInfo {
    const char* word;
    uint32_t section;
};

// In the order of ItemKind.
constexpr auto kKinds = std::to_array<KindInfo>({
    {"firmware", KEMD_INVENTORY_SYSTEM},
    {"system", KEMD_INVENTORY_SYSTEM},
    {"board", KEMD_INVENTORY_SYSTEM},
    {"chassis", KEMD_INVENTORY_SYSTEM},
    {"processor", KEMD_INVENTORY_SYSTEM},
    {"cache", KEMD_INVENTORY_SYSTEM},
    {"connector", KEMD_INVENTORY_SYSTEM},
    {"power_supply", KEMD_INVENTORY_SYSTEM},
    {"battery", KEMD_INVENTORY_SYSTEM},
    {"management_controller", KEMD_INVENTORY_SYSTEM},
    {"tpm", KEMD_INVENTORY_SYSTEM},
    {"onboard_device", KEMD_INVENTORY_SYSTEM},
    {"kernel", KEMD_INVENTORY_SYSTEM},
    {"cpu", KEMD_INVENTORY_SYSTEM},
    {"numa_node", KEMD_INVENTORY_SYSTEM},
    {"graphics", KEMD_INVENTORY_SYSTEM},
    {"serial_port", KEMD_INVENTORY_SYSTEM},
    {"memory_array", KEMD_INVENTORY_MEMORY},
    {"memory_module", KEMD_INVENTORY_MEMORY},
    {"memory_range", KEMD_INVENTORY_MEMORY},
    {"slot", KEMD_INVENTORY_SLOTS},
    {"pci", KEMD_INVENTORY_PCI},
    {"usb", KEMD_INVENTORY_USB},
    {"storage_adapter", KEMD_INVENTORY_DRIVES},
    {"drive", KEMD_INVENTORY_DRIVES},
    {"interface", KEMD_INVENTORY_NETWORK},
    {"partition", KEMD_INVENTORY_VOLUMES},
    {"volume", KEMD_INVENTORY_VOLUMES},
    {"mount", KEMD_INVENTORY_VOLUMES},
});
static_assert(kKinds.size() == static_cast<size_t>(ItemKind::kMount) + 1);

// Else the second one of a name could never be reached.
consteval bool AreFieldNamesUnique() {
    std::array<std::string_view, kInventoryFields.size()> names;
    std::transform(kInventoryFields.begin(), kInventoryFields.end(), names.begin(),
                   [](const InventoryFieldInfo& field) { return std::string_view(field.name); });
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) == names.end();
}
static_assert(AreFieldNamesUnique());

}  // namespace

std::string WithoutControls(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
    return text;
}

const char* KindWord(ItemKind kind) {
    return kKinds.at(static_cast<size_t>(kind)).word;
}

uint32_t KindSection(ItemKind kind) {
    return kKinds.at(static_cast<size_t>(kind)).section;
}

std::optional<ItemKind> KindByWord(std::string_view word) {
    for (unsigned i = 0; i <= static_cast<unsigned>(ItemKind::kMount); ++i) {
        const auto kind = static_cast<ItemKind>(i);
        if (word == KindWord(kind)) return kind;
    }
    return std::nullopt;
}

void KemdInventoryItem::Add(InventoryField field, std::string_view text) {
    assert(field.Info().kind == KEMD_INVENTORY_TEXT);
    std::string clean(Trim(WithoutControls(std::string(text))));
    if (!clean.empty()) values.push_back({field, std::move(clean)});
}

void KemdInventoryItem::AddNumber(InventoryField field, uint64_t number) {
    assert(field.Info().kind != KEMD_INVENTORY_TEXT);
    values.push_back({field, std::to_string(number), number});
}

void KemdInventoryItem::Set(InventoryField field, std::string_view text) {
    std::erase_if(values, [field](const Value& value) { return value.field == field; });
    Add(field, text);
}

const KemdInventoryItem::Value* KemdInventoryItem::Find(InventoryField field) const {
    const auto found = std::find_if(values.begin(), values.end(),
                                    [field](const Value& value) { return value.field == field; });
    return found == values.end() ? nullptr : &*found;
}

const std::string& KemdInventoryItem::Text(InventoryField field) const {
    static const std::string kNone;
    const Value* const value = Find(field);
    return value == nullptr ? kNone : value->text;
}

uint64_t KemdInventoryItem::Number(InventoryField field) const {
    const Value* const value = Find(field);
    return value == nullptr ? 0 : value->number;
}
