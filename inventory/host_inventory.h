// All items at one moment, and what could not be read.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/item.h"

struct KemdInventory {
    int64_t time = 0;  // seconds since 1970
    uint32_t sections = 0;
    // A deque: items stay where they are.
    std::deque<KemdInventoryItem> items;
    std::vector<std::string> notes;
    std::vector<std::string> warnings;

    // An id that is taken gets "#2", "#3" ... The reference stays valid.
    KemdInventoryItem& Add(ItemKind kind, std::string id, std::string name);
    [[nodiscard]] const KemdInventoryItem* Find(std::string_view id) const;
    [[nodiscard]] KemdInventoryItem* Find(std::string_view id);
    // Once for equal texts: "subject: reason".
    void Note(std::string_view subject, std::string_view reason);
    void NoteError(std::string_view subject, int error);
};
