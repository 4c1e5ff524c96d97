#include "inventory/store.h"

#include <algorithm>
#include <cerrno>

#include "base/json.h"
#include "inventory/host_inventory.h"
#include "inventory/sections.h"

namespace {

void AppendMember(std::string& json, const char* name, std::string_view text) {
    json.append(", \"").append(name).append("\": ");
    AppendJson(json, text);
}

void AppendValue(std::string& json, const KemdInventoryItem::Value& value) {
    switch (value.field.Info().kind) {
        case KEMD_INVENTORY_NUMBER:
            json += value.text;
            return;
        case KEMD_INVENTORY_YES:
            json += value.number != 0 ? "true" : "false";
            return;
        default:
            AppendJson(json, value.text);
    }
}

void AppendField(std::string& json, const KemdInventoryItem& item, size_t position) {
    const auto& values = item.values;
    const InventoryField field = values[position].field;
    const auto isField = [field](const auto& value) { return value.field == field; };
    const auto begin = values.begin();
    if (std::any_of(begin, begin + static_cast<ptrdiff_t>(position), isField)) return;
    json.append(", \"").append(field.Info().name).append("\": ");
    if ((field.Info().flags & kList) == 0) return AppendValue(json, values[position]);
    const char* separator = "[";
    for (const auto& value : values) {
        if (!isField(value)) continue;
        json += separator;
        AppendValue(json, value);
        separator = ", ";
    }
    json += "]";
}

void AppendItem(std::string& json, const KemdInventoryItem& item) {
    json.append("{\"kind\": \"").append(KindWord(item.kind)).append("\"");
    AppendMember(json, "id", item.id);
    AppendMember(json, "name", item.name);
    if (!item.parent.empty()) AppendMember(json, "parent", item.parent);
    for (size_t i = 0; i < item.values.size(); ++i) AppendField(json, item, i);
    json += "}";
}

void AppendTexts(std::string& json, const char* name, const std::vector<std::string>& texts) {
    json.append(",\n\"").append(name).append("\": [");
    for (size_t i = 0; i < texts.size(); ++i) {
        json += i == 0 ? "\n  " : ",\n  ";
        AppendJson(json, texts[i]);
    }
    json += "]";
}

}  // namespace

std::string InventoryJson(const KemdInventory& inventory) {
    std::string json = "{\"format\": \"kemd inventory\", \"version\": 1, \"time\": " +
                       std::to_string(inventory.time) + ",\n\"sections\": [";
    const char* separator = "";
    for (const InventorySection& section : kInventorySections) {
        if ((inventory.sections & section.section) == 0) continue;
        json.append(separator).append("\"").append(section.name).append("\"");
        separator = ", ";
    }
    json += "],\n\"items\": [";
    for (size_t i = 0; i < inventory.items.size(); ++i) {
        json += i == 0 ? "\n  " : ",\n  ";
        AppendItem(json, inventory.items[i]);
    }
    json += "]";
    AppendTexts(json, "warnings", inventory.warnings);
    AppendTexts(json, "notes", inventory.notes);
    json += "}\n";
    return json;
}

int SaveInventory(const KemdInventory& /*inventory*/, const std::string& /*path*/) {
    return ENOSYS;
}

int LoadInventory(const std::string& /*path*/, KemdInventory& /*inventory*/,
                  std::string& /*fault*/) {
    return ENOSYS;
}
