#include "inventory/store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <unordered_set>
#include <vector>

#include "base/json.h"
#include "base/output_file.h"
#include "inventory/host_inventory.h"
#include "inventory/sections.h"

namespace {

constexpr const char* kFormat = "kemd inventory";

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

std::string Clean(std::string_view text) {
    return WithoutControls(std::string(text));
}

// Takes an inventory out of its document. Throws std::bad_alloc alone.
class StoredInventory {
  public:
    StoredInventory(KemdInventory& inventory, std::string& fault)
        : m_inventory(inventory), m_fault(fault) {}

    bool Take(const JsonValue& document);

  private:
    bool Fail(std::string fault) {
        m_fault = m_where + std::move(fault);
        return false;
    }
    void Skip(const char* what, std::string_view name) {
        m_inventory.Note(std::string(what) + " " + Clean(name),
                         "this version does not know it; left out");
    }
    bool TakeSections(const JsonValue& document);
    bool TakeItem(const JsonValue& value);
    bool TakeField(KemdInventoryItem& item, const JsonMember& member);
    bool TakeValue(KemdInventoryItem& item, InventoryField field, const JsonValue& value);
    bool TakeTexts(const JsonValue& document, const char* name, std::vector<std::string>& texts);

    KemdInventory& m_inventory;
    std::string& m_fault;
    std::string m_where;  // "item 7: "
    std::unordered_set<std::string> m_ids;
};

const JsonValue* ArrayOf(const JsonValue& document, const char* name) {
    const JsonValue* const value = document.Find(name);
    return value != nullptr && value->kind == JsonValue::kArray ? value : nullptr;
}

bool StoredInventory::Take(const JsonValue& document) {
    if (document.TextOf("format") != kFormat) return Fail("it is no inventory of kemd");
    const std::optional<int64_t> version = document.NumberOf("version");
    if (!version || *version < 1) return Fail("its version is missing");
    const std::optional<int64_t> time = document.NumberOf("time");
    if (!time) return Fail("its time is missing");
    m_inventory.time = *time;
    const JsonValue* const items = ArrayOf(document, "items");
    if (items == nullptr) return Fail("its items are missing");
    if (!TakeTexts(document, "notes", m_inventory.notes) ||
        !TakeTexts(document, "warnings", m_inventory.warnings) || !TakeSections(document)) {
        return false;
    }
    for (size_t i = 0; i < items->elements.size(); ++i) {
        m_where = "item " + std::to_string(i + 1) + ": ";
        if (!TakeItem(items->elements[i])) return false;
    }
    return true;
}

bool StoredInventory::TakeSections(const JsonValue& document) {
    std::vector<std::string> names;
    if (!TakeTexts(document, "sections", names)) return false;
    for (const std::string& name : names) {
        const uint32_t section = SectionByName(name);
        if (section == 0) Skip("section", name);
        m_inventory.sections |= section;
    }
    return true;
}

bool StoredInventory::TakeTexts(const JsonValue& document, const char* name,
                                std::vector<std::string>& texts) {
    const JsonValue* const array = ArrayOf(document, name);
    if (array == nullptr) return Fail(std::string("its ") + name + " are missing");
    for (const JsonValue& text : array->elements) {
        if (text.kind != JsonValue::kText)
            return Fail(std::string("its ") + name + " are no texts");
        texts.push_back(Clean(text.text));
    }
    return true;
}

bool StoredInventory::TakeItem(const JsonValue& value) {
    if (value.kind != JsonValue::kObject) return Fail("no object");
    const std::string_view word = value.TextOf("kind");
    const std::string_view id = value.TextOf("id");
    if (word.empty() || id.empty()) return Fail("kind or id is missing");
    // Of names that are no UTF-8, two may have become the same.
    if (!m_ids.insert(Clean(id)).second) {
        m_inventory.Note("item " + Clean(id), "it is there twice; the first one counts");
        return true;
    }
    const std::optional<ItemKind> kind = KindByWord(word);
    if (!kind) {
        Skip("kind", word);
        return true;
    }
    KemdInventoryItem& item = m_inventory.Append(
        {*kind, Clean(id), Clean(value.TextOf("name")), Clean(value.TextOf("parent")), {}});
    return std::all_of(value.members.begin(), value.members.end(),
                       [&](const JsonMember& member) { return TakeField(item, member); });
}

bool StoredInventory::TakeField(KemdInventoryItem& item, const JsonMember& member) {
    constexpr std::array<std::string_view, 4> kOwn = {"kind", "id", "name", "parent"};
    if (std::find(kOwn.begin(), kOwn.end(), member.name) != kOwn.end()) {
        return member.value.kind == JsonValue::kText || Fail(member.name + " is no text");
    }
    const std::optional<InventoryField> field = InventoryField::Find(member.name);
    if (!field) {
        Skip("field", member.name);
        return true;
    }
    if ((field->Info().flags & kList) == 0) return TakeValue(item, *field, member.value);
    if (member.value.kind != JsonValue::kArray) return Fail(member.name + " is no list");
    return std::all_of(member.value.elements.begin(), member.value.elements.end(),
                       [&](const JsonValue& value) { return TakeValue(item, *field, value); });
}

bool StoredInventory::TakeValue(KemdInventoryItem& item, InventoryField field,
                                const JsonValue& value) {
    const InventoryFieldInfo& info = field.Info();
    switch (info.kind) {
        case KEMD_INVENTORY_NUMBER: {
            uint64_t number = 0;
            const char* const end = value.text.data() + value.text.size();
            const auto result = std::from_chars(value.text.data(), end, number);
            const bool isWhole =
                value.kind == JsonValue::kNumber && result.ec == std::errc() && result.ptr == end;
            if (!isWhole) return Fail(std::string(info.name) + " is no whole number");
            item.AddNumber(field, number);
            return true;
        }
        case KEMD_INVENTORY_YES:
            if (value.kind != JsonValue::kFlag) {
                return Fail(std::string(info.name) + " is neither true nor false");
            }
            item.AddNumber(field, value.flag ? 1 : 0);
            return true;
        default:
            if (value.kind != JsonValue::kText) return Fail(std::string(info.name) + " is no text");
            item.Add(field, value.text);
            return true;
    }
}

}  // namespace

std::string InventoryJson(const KemdInventory& inventory) {
    std::string json = std::string("{\"format\": \"") + kFormat +
                       "\", \"version\": 1, \"time\": " + std::to_string(inventory.time) +
                       ",\n\"sections\": [";
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

int ParseInventory(std::string_view json, KemdInventory& inventory, std::string& fault) {
    const std::optional<JsonValue> document = ParseJson(json, fault);
    if (!document) return EBADMSG;
    return StoredInventory(inventory, fault).Take(*document) ? 0 : EBADMSG;
}

int SaveInventory(const KemdInventory& inventory, const std::string& path) {
    const std::string json = InventoryJson(inventory);
    if (json.size() > kLargestInventory) return EFBIG;
    OutputFile file(path, 0600);
    const bool isDone = file.Open() && file.Write(json) && file.Commit();
    return isDone ? 0 : errno;
}

int LoadInventory(const std::string& path, KemdInventory& inventory, std::string& fault) {
    const std::optional<std::string> json = ReadTextFile(path, kLargestInventory + 1);
    if (!json) {
        const int error = errno;
        fault = error == EINVAL ? "not a regular file" : std::strerror(error);
        return error;
    }
    if (json->size() > kLargestInventory) {
        fault = "it has more than the 64 MiB that an inventory may have";
        return EFBIG;
    }
    return ParseInventory(*json, inventory, fault);
}
