#include "kemdctl/inventory/items.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <vector>

#include "inventory/sections.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/table.h"
#include "kemdctl/ui/text.h"

namespace {

using Items = std::vector<const KemdInventoryItem*>;

constexpr size_t kColumn = 24;  // where values begin

// What a table shows of a kind beside the name; those that no item has are left out. Kinds that
// have no row here are shown as blocks.
struct Columns {
    ItemKind kind;
    std::array<const char*, 8> fields;
};
constexpr Columns kColumns[] = {
    {ItemKind::kCache, {"level", "type", "size", "associativity", "location"}},
    {ItemKind::kConnector, {"type", "internal_name", "external_name"}},
    {ItemKind::kOnboardDevice, {"type", "bus_address", "enabled"}},
    {ItemKind::kMemoryModule,
     {"size", "type", "configured_speed", "rated_speed", "vendor", "part_number", "serial"}},
    {ItemKind::kSlot, {"type", "width", "usage", "bus_address"}},
    {ItemKind::kPci, {"class", "vendor", "device", "driver", "slot"}},
    {ItemKind::kUsb, {"vendor", "device", "bus_speed", "driver", "serial"}},
    {ItemKind::kGraphics, {"vendor", "model", "driver", "slot"}},
    {ItemKind::kSerialPort, {"uart", "io_address", "irq", "driver"}},
    {ItemKind::kStorageAdapter, {"vendor", "model", "driver", "firmware", "slot"}},
    {ItemKind::kDrive, {"size", "model", "interface", "firmware", "serial", "health", "slot"}},
    {ItemKind::kInterface, {"link", "speed", "mac", "driver", "firmware", "model", "slot"}},
    {ItemKind::kPartition, {"size", "partition_type_name", "fs_type", "fs_label", "mountpoints"}},
    {ItemKind::kVolume, {"type", "size", "state", "fs_type", "fs_label", "mountpoints"}},
    {ItemKind::kMount, {"source", "fs_type", "fs_size", "fs_available"}},
};

const Columns* ColumnsOf(ItemKind kind) {
    const auto* const found =
        std::find_if(std::begin(kColumns), std::end(kColumns),
                     [kind](const Columns& columns) { return columns.kind == kind; });
    return found == std::end(kColumns) ? nullptr : found;
}

std::string Label(std::string_view word) {
    std::string label(word);
    std::replace(label.begin(), label.end(), '_', ' ');
    return label;
}

std::string ValueText(const KemdInventoryItem::Value& value) {
    const InventoryFieldInfo& info = value.field.Info();
    if (info.kind == KEMD_INVENTORY_YES) return value.number != 0 ? "yes" : "no";
    if (std::string_view(info.unit) == "bytes") return BinarySize(value.number);
    return Printable(value.text) + (*info.unit != '\0' ? " " : "") + info.unit;
}

std::string FieldText(const KemdInventoryItem& item, InventoryField field) {
    std::string text;
    for (const auto& value : item.values) {
        if (value.field == field) text += (text.empty() ? "" : ", ") + ValueText(value);
    }
    return text;
}

void ShowTableOf(ReportWriter& report, const Items& items, const Columns& columns) {
    std::vector<TableRow> rows(1 + items.size());
    rows[0].emplace_back(Label(KindWord(columns.kind)));
    for (size_t i = 0; i < items.size(); ++i) rows[i + 1].emplace_back(Printable(items[i]->name));
    for (const char* const field : columns.fields) {
        if (field == nullptr) break;
        const bool isThere = std::any_of(items.begin(), items.end(), [field](const auto* item) {
            return !ShownField(*item, field).empty();
        });
        if (!isThere) continue;
        rows[0].emplace_back(Label(field));
        for (size_t i = 0; i < items.size(); ++i) {
            const std::string text = ShownField(*items[i], field);
            rows[i + 1].emplace_back(text.empty() ? "-" : text);
        }
    }
    ShowTable(report, rows);
}

// Values that are too many for a line have one each.
void ShowField(ReportWriter& report, const KemdInventoryItem& item, InventoryField field) {
    constexpr size_t kLong = 56;
    std::string label = "  " + Label(field.Info().name);
    const std::string all = FieldText(item, field);
    if (all.size() <= kLong || (field.Info().flags & kList) == 0) return report.Field(label, all);
    label += ':';
    for (const auto& value : item.values) {
        if (value.field != field) continue;
        label.resize(std::max(label.size(), kColumn), ' ');
        report.Line(label + ValueText(value));
        label.clear();
    }
}

void ShowBlock(ReportWriter& report, const KemdInventoryItem& item) {
    report.Line(Label(KindWord(item.kind)) + " " + Printable(item.name));
    report.Field("  id", Printable(item.id));
    if (!item.parent.empty()) report.Field("  parent", Printable(item.parent));
    std::vector<InventoryField> shown;
    for (const auto& value : item.values) {
        if (std::find(shown.begin(), shown.end(), value.field) != shown.end()) continue;
        shown.push_back(value.field);
        ShowField(report, item, value.field);
    }
}

}  // namespace

std::string BinarySize(uint64_t bytes) {
    constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    constexpr double kStep = 1024;
    if (bytes < 1024) return Counted(bytes, "byte");
    double size = static_cast<double>(bytes) / kStep;
    size_t unit = 0;
    // What would be shown as 1024.0 is one of the next unit.
    for (; size >= kStep - 0.05 && unit + 1 < kUnits.size(); ++unit) size /= kStep;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", size);
    std::string shown = text.data();
    if (shown.ends_with(".0")) shown.resize(shown.size() - 2);
    return shown + " " + kUnits.at(unit);
}

std::string ShownField(const KemdInventoryItem& item, std::string_view name) {
    const std::optional<InventoryField> field = InventoryField::Find(name);
    return field ? FieldText(item, *field) : "";
}

std::string ShownSummary(const KemdInventoryItem& item) {
    const Columns* const columns = ColumnsOf(item.kind);
    std::string text;
    if (columns == nullptr) return text;
    for (const char* const field : columns->fields) {
        if (field == nullptr) break;
        std::string shown = ShownField(item, field);
        // "yes" says nothing without its name, and a mount has two sizes.
        if (shown.empty() || shown == "yes" || shown == "no") continue;
        if (std::string_view(field) == "fs_available") shown += " available";
        text += (text.empty() ? "" : "  ") + shown;
    }
    return text;
}

void ShowSections(ReportWriter& report, const KemdInventory& inventory, uint32_t sections,
                  bool isLong) {
    std::vector<ItemKind> kinds;
    for (const KemdInventoryItem& item : inventory.items) {
        const bool isWanted = (KindSection(item.kind) & sections) != 0;
        const bool isNew = std::find(kinds.begin(), kinds.end(), item.kind) == kinds.end();
        if (isWanted && isNew) kinds.push_back(item.kind);
    }
    report.SetColumn(kColumn);
    if (kinds.empty()) report.Line("nothing found");
    const char* before = "";
    for (const ItemKind kind : kinds) {
        Items items;
        for (const KemdInventoryItem& item : inventory.items) {
            if (item.kind == kind) items.push_back(&item);
        }
        const Columns* const columns = isLong ? nullptr : ColumnsOf(kind);
        if (columns != nullptr) {
            Write(before);
            ShowTableOf(report, items, *columns);
            before = "\n";
            continue;
        }
        for (const KemdInventoryItem* const item : items) {
            Write(before);
            ShowBlock(report, *item);
            before = "\n";
        }
    }
    for (const std::string& warning : inventory.warnings) {
        report.Line(before + ("warning: " + Printable(warning)));
        before = "";
    }
}

void ComplainOfNotes(const std::vector<std::string>& notes, const std::string& subject) {
    constexpr size_t kMost = 3;
    std::map<std::string_view, size_t> reasons;
    for (const std::string_view note : notes) {
        const size_t colon = note.rfind(": ");
        const std::string_view reason = colon == note.npos ? note : note.substr(colon + 2);
        if (++reasons[reason] > kMost) continue;
        Complain("note: %s%s", subject.c_str(), Printable(note).c_str());
    }
    for (const auto& [reason, count] : reasons) {
        if (count <= kMost) continue;
        Complain("note: %s%zu more: %s; the document has them all", subject.c_str(), count - kMost,
                 Printable(reason).c_str());
    }
}
