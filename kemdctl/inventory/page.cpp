// kemdctl inventory without options: the machine on one page.
#include <algorithm>
#include <map>

#include "kemdctl/inventory/items.h"
#include "kemdctl/inventory/output.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

using Item = KemdInventoryItem;
using Items = std::vector<const Item*>;

// Of drives and of ports. With the six lines above them and the prompt, 24 lines hold it.
constexpr size_t kMostRows = 6;
constexpr size_t kMostWarningLines = 5;
constexpr size_t kPageColumn = 12;
constexpr size_t kPageWidth = 80;

// One thing, or several alike ones.
struct Row {
    std::string text;
    size_t count = 1;
};

class Page {
  public:
    Page(ReportWriter& report, const KemdInventory& inventory)
        : m_report(report), m_inventory(inventory) {}
    void Show();

  private:
    [[nodiscard]] Items Of(ItemKind kind) const;
    // The fields of the first item of a kind, with blanks between.
    [[nodiscard]] std::string First(ItemKind kind, std::initializer_list<const char*> fields) const;
    void Line(const char* label, const std::string& text);
    void Rows(const char* label, const std::vector<Row>& rows, const char* section);
    [[nodiscard]] std::string Firmware() const;
    [[nodiscard]] std::string System() const;
    [[nodiscard]] std::string Processors() const;
    [[nodiscard]] std::string Memory() const;
    [[nodiscard]] std::vector<Row> Drives() const;
    [[nodiscard]] std::vector<Row> Ports() const;
    [[nodiscard]] std::vector<std::string> Attention() const;

    ReportWriter& m_report;
    const KemdInventory& m_inventory;
};

void Append(std::string& text, const std::string& more, const char* between = " ") {
    if (!more.empty()) text += (text.empty() ? "" : between) + more;
}

std::string Fields(const Item& item, std::initializer_list<const char*> fields,
                   const char* between = " ") {
    std::string text;
    for (const char* const field : fields) Append(text, ShownField(item, field), between);
    return text;
}

uint64_t NumberOf(const Item& item, const char* name) {
    const std::optional<InventoryField> field = InventoryField::Find(name);
    return field ? item.Number(*field) : 0;
}

bool IsUnpopulated(const Item& item) {
    return ShownField(item, "populated") == "no";
}

// "2 x A, B" in the order in which they came.
std::string Grouped(const std::vector<std::string>& texts) {
    std::vector<std::pair<std::string, size_t>> groups;
    for (const std::string& text : texts) {
        const auto found = std::find_if(groups.begin(), groups.end(),
                                        [&](const auto& group) { return group.first == text; });
        if (found == groups.end()) {
            groups.emplace_back(text, 1);
        } else {
            ++found->second;
        }
    }
    std::string all;
    for (const auto& [text, count] : groups) {
        Append(all, (count > 1 ? std::to_string(count) + " x " : "") + text, ", ");
    }
    return all;
}

std::string FirstColumn(const std::string& name) {
    constexpr size_t kWidth = 9;
    std::string column = Printable(name);
    column.resize(std::max(column.size(), kWidth), ' ');
    return column;
}

// Takes as many words as there is room for.
std::string_view TakeWords(std::string_view& text, size_t room) {
    size_t end = text.size();
    while (Width(Printable(text.substr(0, end))) > room) {
        const size_t blank = text.rfind(' ', end - 1);
        if (blank == text.npos || blank == 0) break;
        end = blank;
    }
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

Items Page::Of(ItemKind kind) const {
    Items items;
    for (const Item& item : m_inventory.items) {
        if (item.kind == kind) items.push_back(&item);
    }
    return items;
}

std::string Page::First(ItemKind kind, std::initializer_list<const char*> fields) const {
    const Items items = Of(kind);
    return items.empty() ? "" : Fields(*items[0], fields);
}

// Cut to the page's width: the sections have the whole text.
void Page::Line(const char* label, const std::string& text) {
    if (text.empty()) return;
    std::string shown = text;
    const size_t room = kPageWidth - kPageColumn;
    if (Width(shown) > room) {
        while (Width(shown) > room - 3) {
            do shown.pop_back();
            while ((static_cast<unsigned char>(shown.back()) & 0xC0) == 0x80);
        }
        shown += "...";
    }
    m_report.Line(label + std::string(kPageColumn - std::string_view(label).size(), ' ') + shown);
}

void Page::Rows(const char* label, const std::vector<Row>& rows, const char* section) {
    const size_t shown = rows.size() > kMostRows ? kMostRows - 1 : rows.size();
    size_t more = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        if (i < shown) Line(i == 0 ? label : "", rows[i].text);
        if (i >= shown) more += rows[i].count;
    }
    if (more > 0) Line("", "and " + std::to_string(more) + " more: kemdctl inventory " + section);
}

std::string Page::Firmware() const {
    std::string text = First(ItemKind::kFirmware, {"vendor", "version", "date"});
    Append(text, First(ItemKind::kKernel, {"boot_mode"}), ", ");
    const std::string secure = First(ItemKind::kKernel, {"secure_boot"});
    if (!secure.empty()) Append(text, secure == "yes" ? "secure boot" : "no secure boot", ", ");
    return text;
}

std::string Page::System() const {
    std::string text = First(ItemKind::kKernel, {"operating_system"});
    Append(text, First(ItemKind::kKernel, {"release"}), ", ");
    Append(text, First(ItemKind::kKernel, {"virtualization"}), ", ");
    Append(text, First(ItemKind::kKernel, {"container"}), ", in ");
    return text;
}

std::string Page::Processors() const {
    std::vector<std::string> models;
    uint64_t cores = 0;
    uint64_t threads = 0;
    for (const Item* const item : Of(ItemKind::kProcessor)) {
        if (IsUnpopulated(*item)) continue;
        models.push_back(ShownField(*item, "model"));
        cores += NumberOf(*item, "cores");
        threads += NumberOf(*item, "threads");
    }
    // What the kernel runs on counts, where it says so.
    const Items cpus = Of(ItemKind::kCpu);
    if (!cpus.empty()) {
        models.assign(std::max<uint64_t>(NumberOf(*cpus[0], "sockets"), 1),
                      ShownField(*cpus[0], "model"));
        cores = NumberOf(*cpus[0], "cores");
        threads = NumberOf(*cpus[0], "threads");
    }
    std::string text = Grouped(models);
    if (cores > 0) Append(text, Counted(cores, "core"), ", ");
    if (threads > 0) Append(text, Counted(threads, "thread"), ", ");
    return text;
}

std::string Page::Memory() const {
    std::vector<std::string> modules;
    uint64_t size = 0;
    size_t empty = 0;
    for (const Item* const item : Of(ItemKind::kMemoryModule)) {
        const uint64_t bytes = NumberOf(*item, "size");
        empty += IsUnpopulated(*item) ? 1 : 0;
        size += bytes;
        if (bytes == 0) continue;
        modules.push_back(Fields(*item, {"size", "type"}));
        Append(modules.back(), ShownField(*item, "configured_speed"), " at ");
    }
    std::string text;
    if (modules.empty()) return First(ItemKind::kKernel, {"memory_total"});
    Append(text, BinarySize(size) + ": " + Grouped(modules));
    if (empty > 0) Append(text, Counted(empty, "empty socket"), ", ");
    return text;
}

std::string DriveKind(const Item& item) {
    return Fields(item, {"size", "model", "interface", "health"}, "  ");
}

std::vector<Row> Page::Drives() const {
    const Items drives = Of(ItemKind::kDrive);
    std::map<std::string, size_t> counts;
    for (const Item* const item : drives) ++counts[DriveKind(*item)];
    std::vector<Row> rows;
    for (const Item* const item : drives) {
        // Of many, alike ones are one row: that of the first.
        size_t& count = counts[DriveKind(*item)];
        const bool isGroup = drives.size() > kMostRows && count > 1;
        if (count == 0) continue;
        std::string row = FirstColumn(isGroup ? std::to_string(count) + " x" : item->name);
        Append(row, DriveKind(*item), "  ");
        if (!isGroup) Append(row, ShownField(*item, "slot"), "  slot ");
        rows.push_back({row, isGroup ? count : 1});
        if (isGroup) count = 0;
    }
    return rows;
}

std::vector<Row> Page::Ports() const {
    std::vector<Row> rows;
    for (const Item* const item : Of(ItemKind::kInterface)) {
        std::string row = FirstColumn(item->name);
        const std::string link = ShownField(*item, "link");
        Append(row, link == "yes" ? "up" : link == "no" ? "down" : "", "  ");
        Append(row, Fields(*item, {"speed", "mac", "driver"}, "  "), "  ");
        Append(row, ShownField(*item, "slot"), "  slot ");
        rows.push_back({row});
    }
    return rows;
}

// The first ones weigh most. Two lines each have to do.
std::vector<std::string> Page::Attention() const {
    const std::vector<std::string>& warnings = m_inventory.warnings;
    if (warnings.empty()) return {"nothing needs it"};
    std::vector<std::string> lines;
    for (size_t i = 0; i < warnings.size(); ++i) {
        std::string_view rest = warnings[i];
        std::vector<std::string> own = {Printable(TakeWords(rest, kPageWidth - kPageColumn))};
        if (!rest.empty()) own.push_back(Printable(rest));
        const size_t room = kMostWarningLines - (i + 1 < warnings.size() ? 1 : 0);
        if (lines.size() + own.size() > room) {
            lines.push_back("and " + std::to_string(warnings.size() - i) +
                            " more: kemdctl inventory --long, at its end");
            break;
        }
        lines.insert(lines.end(), own.begin(), own.end());
    }
    return lines;
}

void Page::Show() {
    Line("Machine", First(ItemKind::kSystem, {"vendor", "model", "version"}));
    Line("Serial", First(ItemKind::kSystem, {"serial"}));
    Line("Firmware", Firmware());
    Line("System", System());
    Line("Processors", Processors());
    Line("Memory", Memory());
    Rows("Drives", Drives(), "drives");
    Rows("Ports", Ports(), "network");
    const char* label = "Attention";
    for (const std::string& line : Attention()) {
        Line(label, line);
        label = "";
    }
}

}  // namespace

void ShowPage(ReportWriter& report, const KemdInventory& inventory) {
    Page(report, inventory).Show();
}
