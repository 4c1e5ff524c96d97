#include "inventory/difference.h"

#include <algorithm>
#include <unordered_map>

#include "inventory/drive_health.h"

namespace {

using ItemsById = std::unordered_map<std::string_view, const KemdInventoryItem*>;

ItemsById ById(const KemdInventory& inventory) {
    ItemsById items;
    for (const KemdInventoryItem& item : inventory.items) items.emplace(item.id, &item);
    return items;
}

const KemdInventoryItem* Find(const ItemsById& items, const std::string& id) {
    const auto found = items.find(id);
    return found == items.end() ? nullptr : found->second;
}

// The order of a list is no difference: the kernel gives none.
std::string Joined(const KemdInventoryItem& item, InventoryField field) {
    std::vector<std::string_view> texts;
    for (const auto& value : item.values) {
        if (value.field == field) texts.push_back(value.text);
    }
    std::sort(texts.begin(), texts.end());
    std::string joined;
    for (const std::string_view text : texts) {
        joined.append(joined.empty() ? "" : ", ").append(text);
    }
    return joined;
}

// A drive that was not asked, sleeps or did not answer in time says nothing about its health.
bool HasAnswered(const KemdInventoryItem& drive) {
    const std::string& health = drive.Text("health");
    return !health.empty() && health != "unknown";
}

}  // namespace

std::vector<FieldDifference> CompareItems(const KemdInventoryItem& before,
                                          const KemdInventoryItem& after, bool withVolatile) {
    std::vector<FieldDifference> differences;
    const bool hasHealth = withVolatile || (HasAnswered(before) && HasAnswered(after));
    const auto compare = [&](InventoryField field) {
        const bool isDone = std::any_of(differences.begin(), differences.end(),
                                        [field](const auto& done) { return done.field == field; });
        if (isDone || ((field.Info().flags & kVolatile) != 0 && !withVolatile)) return;
        if (IsOfHealth(field) && !hasHealth) return;
        FieldDifference difference{field, Joined(before, field), Joined(after, field),
                                   before.Find(field) != nullptr, after.Find(field) != nullptr};
        if (difference.before != difference.after) differences.push_back(std::move(difference));
    };
    for (const auto& value : before.values) compare(value.field);
    for (const auto& value : after.values) compare(value.field);
    return differences;
}

std::vector<ItemDifference> CompareInventories(const KemdInventory& before,
                                               const KemdInventory& after, bool withVolatile) {
    const uint32_t sections = before.sections & after.sections;
    const ItemsById old = ById(before);
    const ItemsById current = ById(after);
    std::vector<ItemDifference> differences;
    for (const KemdInventoryItem& item : before.items) {
        const bool counts = (KindSection(item.kind) & sections) != 0;
        if (counts && Find(current, item.id) == nullptr)
            differences.push_back({&item, nullptr, {}});
    }
    for (const KemdInventoryItem& item : after.items) {
        if ((KindSection(item.kind) & sections) == 0) continue;
        const KemdInventoryItem* const was = Find(old, item.id);
        if (was == nullptr) {
            differences.push_back({nullptr, &item, {}});
            continue;
        }
        std::vector<FieldDifference> fields = CompareItems(*was, item, withVolatile);
        if (!fields.empty() || was->parent != item.parent)
            differences.push_back({was, &item, std::move(fields)});
    }
    return differences;
}

void DeliverChange(const ItemDifference& difference, KemdInventoryOnChange onChange, void* user) {
    std::vector<KemdInventoryFieldChange> fields;
    for (const FieldDifference& field : difference.fields) {
        fields.push_back({field.field.Info().name, field.field.Info().flags,
                          field.wasThere ? field.before.c_str() : nullptr,
                          field.isThere ? field.after.c_str() : nullptr});
    }
    const KemdInventoryChange change = {sizeof change, static_cast<uint32_t>(fields.size()),
                                        difference.before, difference.after, fields.data()};
    onChange(user, &change);
}
