// All items at one moment, and what could not be read.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "inventory/item.h"

struct KemdInventory {
  public:
    int64_t time = 0;  // seconds since 1970
    uint32_t sections = 0;
    // A deque: items stay where they are. Only Add and Append add to it, and an id never changes.
    std::deque<KemdInventoryItem> items;
    std::vector<std::string> notes;
    std::vector<std::string> warnings;

    KemdInventory() = default;
    ~KemdInventory() = default;
    KemdInventory(const KemdInventory&) = delete;
    KemdInventory& operator=(const KemdInventory&) = delete;
    KemdInventory(KemdInventory&&) = default;
    KemdInventory& operator=(KemdInventory&&) = default;

    // An id that is taken gets "#2", "#3" ... The reference stays valid.
    KemdInventoryItem& Add(ItemKind kind, std::string id, std::string name);
    // As it is. Of two with the same id Find has the first.
    KemdInventoryItem& Append(KemdInventoryItem item);
    [[nodiscard]] const KemdInventoryItem* Find(std::string_view id) const;
    [[nodiscard]] KemdInventoryItem* Find(std::string_view id);
    // Once for equal texts: "subject: reason".
    void Note(std::string_view subject, std::string_view reason);
    void NoteError(std::string_view subject, int error);

  private:
    [[nodiscard]] KemdInventoryItem* Lookup(std::string_view id) const;

    // The keys are the ids in the items.
    std::unordered_map<std::string_view, KemdInventoryItem*> m_byId;
};
