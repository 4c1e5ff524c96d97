// The inventory as a tree: what sits in what.
#include <algorithm>
#include <set>
#include <unordered_map>

#include "kemdctl/inventory/items.h"
#include "kemdctl/inventory/output.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

using Item = KemdInventoryItem;

constexpr uint32_t kSections = KEMD_INVENTORY_PCI | KEMD_INVENTORY_USB | KEMD_INVENTORY_DRIVES |
                               KEMD_INVENTORY_NETWORK | KEMD_INVENTORY_VOLUMES;

class Tree {
  public:
    Tree(ReportWriter& report, const KemdInventory& inventory);
    void Show();

  private:
    void ShowItem(const Item& item, const std::string& first, const std::string& rest);

    ReportWriter& m_report;
    const KemdInventory& m_inventory;
    std::unordered_map<std::string_view, std::vector<const Item*>> m_children;
    std::set<const Item*> m_shown;
};

// A volume of several drives or partitions is under each of them.
std::set<std::string_view> ParentsOf(const Item& item) {
    std::set<std::string_view> parents = {item.parent};
    for (const auto& value : item.values) {
        if (value.field == InventoryField("members")) parents.insert(value.text);
    }
    return parents;
}

Tree::Tree(ReportWriter& report, const KemdInventory& inventory)
    : m_report(report), m_inventory(inventory) {
    std::set<std::string_view> ids;
    for (const Item& item : inventory.items) {
        if ((KindSection(item.kind) & kSections) != 0) ids.insert(item.id);
    }
    for (const Item& item : inventory.items) {
        if (!ids.contains(item.id)) continue;
        std::set<std::string_view> parents = ParentsOf(item);
        std::erase_if(parents, [&ids](std::string_view id) { return !ids.contains(id); });
        if (parents.empty()) parents.insert(std::string_view());
        for (const std::string_view parent : parents) m_children[parent].push_back(&item);
    }
}

void Tree::ShowItem(const Item& item, const std::string& first, const std::string& rest) {
    const std::string facts = ShownSummary(item);
    const bool isNew = m_shown.insert(&item).second;
    const auto found = m_children.find(item.id);
    const bool hasChildren = found != m_children.end();
    // Its children stand where it is for the first time; that ends a circle too.
    m_report.Line(first + Printable(item.name) + (facts.empty() ? "" : "  " + facts) +
                  (!isNew && hasChildren ? "  (see above)" : ""));
    if (!isNew || !hasChildren) return;
    for (const Item* const child : found->second) {
        const bool isLast = child == found->second.back();
        ShowItem(*child, rest + (isLast ? "`- " : "|- "), rest + (isLast ? "   " : "|  "));
    }
}

void Tree::Show() {
    if (m_children.empty()) m_report.Line("nothing found");
    for (const Item* const item : m_children[std::string_view()]) ShowItem(*item, "", "");
    // What is left are circles, which no inventory of a machine has.
    for (const Item& item : m_inventory.items) {
        const bool isOpen = (KindSection(item.kind) & kSections) != 0 && !m_shown.contains(&item);
        if (isOpen) ShowItem(item, "", "");
    }
}

}  // namespace

void ShowTree(ReportWriter& report, const KemdInventory& inventory) {
    Tree(report, inventory).Show();
}
