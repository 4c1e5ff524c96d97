// Inventories that are kept in files, and what changed since.
#pragma once

#include <string>
#include <vector>

#include "inventory/host_inventory.h"

class ReportWriter;

// What a comparison leaves out.
class IgnoreList {
  public:
    // FIELD, KIND, KIND.FIELD or a pattern of ids, which has a ":" or a "*". False when it is none
    // of them.
    [[nodiscard]] bool Add(const std::string& text);
    [[nodiscard]] bool Has(const KemdInventoryItem& item) const;
    // The field "parent" too.
    [[nodiscard]] bool Has(const KemdInventoryItem& item, const std::string& field) const;

  private:
    struct Rule {
        std::string kind;   // empty: any
        std::string field;  // empty: the whole item
        std::string id;     // a pattern; empty: any
    };
    std::vector<Rule> m_rules;
};

struct DiffOptions {
    const char* before = nullptr;
    const char* after = nullptr;  // null: this machine
    IgnoreList ignored;
    bool withVolatile = false;
    bool withHealth = true;
};

// Of this machine. Root asks drives for their health too, with `withHealth`. Texts are UTF-8.
KemdInventory TakeInventory(uint32_t sections, bool withHealth);
// Complains when there is none. The exit code.
int SaveTo(const char* path, const KemdInventory& inventory);
// The exit code: kNo when they differ.
int ShowDifferences(ReportWriter& report, const DiffOptions& options);
