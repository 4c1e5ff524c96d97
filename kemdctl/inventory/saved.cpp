#include "kemdctl/inventory/saved.h"

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>

#include "inventory/difference.h"
#include "inventory/sections.h"
#include "inventory/sources.h"
#include "inventory/store.h"
#include "kemdctl/inventory/items.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

// Nothing, after a complaint, when it cannot be read.
std::optional<KemdInventory> LoadSaved(const char* path) {
    KemdInventory inventory;
    std::string fault;
    const int error = LoadInventory(path, inventory, fault);
    if (error == 0) return inventory;
    Complain("cannot read %s: %s%s", Printable(path).c_str(), Printable(fault).c_str(),
             error == EBADMSG ? "; it must be what kemdctl inventory save wrote" : "");
    return std::nullopt;
}

// As it stands in the inventory: rounding could hide a difference.
std::string ExactText(const FieldDifference& field, const std::string& text, bool isThere) {
    const InventoryFieldInfo& info = field.field.Info();
    if (!isThere) return "(none)";
    if (info.kind == KEMD_INVENTORY_YES) return text == "1" ? "yes" : "no";
    return Printable(text) + (*info.unit != '\0' ? " " : "") + info.unit;
}

// To another parent; `difference` has both.
bool HasMoved(const ItemDifference& difference, const IgnoreList& ignored) {
    return difference.before->parent != difference.after->parent &&
           !ignored.Has(*difference.after, "parent");
}

class DifferenceReport {
  public:
    DifferenceReport(ReportWriter& report, const IgnoreList& ignored)
        : m_report(report), m_ignored(ignored) {}
    void Item(const ItemDifference& difference);

  private:
    void Field(const FieldDifference& field);
    void Parent(const std::string& before, const std::string& after);
    void Change(const std::string& name, const std::string& before, const std::string& after) {
        m_report.Line(m_subject + " changed: " + name + ": " + before + " -> " + after);
    }

    ReportWriter& m_report;
    const IgnoreList& m_ignored;
    std::string m_subject;
};

void DifferenceReport::Field(const FieldDifference& field) {
    const char* const name = field.field.Info().name;
    Change(name, ExactText(field, field.before, field.wasThere),
           ExactText(field, field.after, field.isThere));
    m_report.Object({}, [&] {
        m_report.Text("name", name);
        if (field.wasThere) m_report.Text("before", field.before);
        if (field.isThere) m_report.Text("after", field.after);
    });
}

void DifferenceReport::Parent(const std::string& before, const std::string& after) {
    const auto shown = [](const std::string& parent) {
        return parent.empty() ? "(none)" : Printable(parent);
    };
    Change("parent", shown(before), shown(after));
    m_report.Object({}, [&] {
        m_report.Text("name", "parent");
        if (!before.empty()) m_report.Text("before", before);
        if (!after.empty()) m_report.Text("after", after);
    });
}

void DifferenceReport::Item(const ItemDifference& difference) {
    const auto& [before, after, fields] = difference;
    const KemdInventoryItem& item = after != nullptr ? *after : *before;
    const bool isChanged = before != nullptr && after != nullptr;
    const char* const change = isChanged ? "changed" : after != nullptr ? "added" : "removed";
    m_subject = Printable(item.id);
    m_report.OpenObject();
    m_report.Text("change", change);
    m_report.Text("kind", KindWord(item.kind));
    m_report.Text("id", item.id);
    m_report.Text("name", item.name);
    if (!isChanged) {
        m_report.Line(m_subject + " " + change + ": " + Printable(item.name));
        m_report.Close();
        return;
    }
    m_report.OpenArray("fields");
    if (HasMoved(difference, m_ignored)) Parent(before->parent, after->parent);
    for (const FieldDifference& field : fields) Field(field);
    m_report.Close();
    m_report.Close();
}

// Takes out what is ignored.
std::vector<ItemDifference> Wanted(std::vector<ItemDifference> differences,
                                   const IgnoreList& ignored) {
    std::erase_if(differences, [&](ItemDifference& difference) {
        auto& [before, after, fields] = difference;
        if (ignored.Has(after != nullptr ? *after : *before)) return true;
        if (before == nullptr || after == nullptr) return false;
        std::erase_if(fields, [&, item = after](const FieldDifference& field) {
            return ignored.Has(*item, field.field.Info().name);
        });
        return fields.empty() && !HasMoved(difference, ignored);
    });
    return differences;
}

// What only one of them has looked at says nothing.
void ComplainOfSections(const KemdInventory& before, const KemdInventory& after) {
    std::string missing;
    for (const auto& [section, name] : kInventorySections) {
        const bool isInOne = ((before.sections ^ after.sections) & section) != 0;
        if (isInOne) missing += (missing.empty() ? "" : ", ") + std::string(name);
    }
    if (missing.empty()) return;
    Complain("note: only one of the two has these sections, which are not compared: %s",
             missing.c_str());
}

void ComplainOfBoth(const KemdInventory& before, const KemdInventory& after,
                    const DiffOptions& options) {
    std::vector<std::string> first = before.notes;
    std::vector<std::string> second = after.notes;
    std::vector<std::string> both;
    const auto isInBoth = [&second](const std::string& note) {
        return std::find(second.begin(), second.end(), note) != second.end();
    };
    std::copy_if(first.begin(), first.end(), std::back_inserter(both), isInBoth);
    for (const std::string& note : both) {
        std::erase(first, note);
        std::erase(second, note);
    }
    ComplainOfNotes(both, "both: ");
    ComplainOfNotes(first, Printable(options.before) + ": ");
    ComplainOfNotes(second,
                    (options.after != nullptr ? Printable(options.after) : "this machine") + ": ");
}

}  // namespace

bool IgnoreList::Add(const std::string& text) {
    const auto isField = [](const std::string& word) {
        return word == "parent" || InventoryField::Find(word).has_value();
    };
    const size_t dot = text.find('.');
    const std::string kind = text.substr(0, dot);
    if (isField(text)) {
        m_rules.push_back({"", text, ""});
    } else if (dot == text.npos && KindByWord(text)) {
        m_rules.push_back({text, "", ""});
    } else if (dot != text.npos && KindByWord(kind) && isField(text.substr(dot + 1))) {
        m_rules.push_back({kind, text.substr(dot + 1), ""});
    } else if (text.find_first_of(":*?[") != text.npos) {
        m_rules.push_back({"", "", text});
    } else {
        return false;
    }
    return true;
}

bool IgnoreList::Has(const KemdInventoryItem& item) const {
    return Has(item, "");
}

bool IgnoreList::Has(const KemdInventoryItem& item, const std::string& field) const {
    return std::any_of(m_rules.begin(), m_rules.end(), [&](const Rule& rule) {
        return rule.field == field && (rule.kind.empty() || rule.kind == KindWord(item.kind)) &&
               (rule.id.empty() || fnmatch(rule.id.c_str(), item.id.c_str(), 0) == 0);
    });
}

KemdInventory TakeInventory(uint32_t sections, bool withHealth) {
    const bool asksDrives = withHealth && geteuid() == 0;
    KemdInventory scanned;
    ScanHost(scanned,
             asksDrives ? sections | KEMD_INVENTORY_HEALTH : sections & ~KEMD_INVENTORY_HEALTH);
    // As a file would have it, so that the two compare.
    KemdInventory inventory;
    std::string fault;
    if (ParseInventory(InventoryJson(scanned), inventory, fault) == 0) return inventory;
    return scanned;
}

int SaveTo(const char* path, const KemdInventory& inventory) {
    const std::string json = InventoryJson(inventory);
    if (json.size() > kLargestInventory) {
        Complain(
            "cannot write %s: the inventory has %s, and diff reads 64 MiB; save fewer sections",
            Printable(path).c_str(), BinarySize(json.size()).c_str());
        return kError;
    }
    if (std::strcmp(path, "-") == 0) {
        Write(json);
        return kYes;
    }
    errno = SaveInventory(inventory, path);
    return errno == 0 ? kYes : FileError("write", path);
}

int ShowDifferences(ReportWriter& report, const DiffOptions& options) {
    const std::optional<KemdInventory> before = LoadSaved(options.before);
    if (!before) return kError;
    const bool isOfMachine = options.after == nullptr;
    const std::optional<KemdInventory> after =
        isOfMachine ? TakeInventory(before->sections, options.withHealth)
                    : LoadSaved(options.after);
    if (!after) return kError;
    ComplainOfBoth(*before, *after, options);
    ComplainOfSections(*before, *after);
    const std::vector<ItemDifference> differences =
        Wanted(CompareInventories(*before, *after, options.withVolatile), options.ignored);
    DifferenceReport shown(report, options.ignored);
    report.OpenObject();
    report.List("changes", differences,
                [&](const ItemDifference& difference) { shown.Item(difference); });
    return differences.empty() ? kYes : kNo;
}
