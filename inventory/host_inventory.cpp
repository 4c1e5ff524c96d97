#include "inventory/host_inventory.h"

#include <algorithm>
#include <cstring>

KemdInventoryItem& KemdInventory::Add(ItemKind kind, std::string id, std::string name) {
    id = WithoutControls(std::move(id));
    const size_t length = id.size();
    for (unsigned number = 2; Find(id) != nullptr; ++number) {
        id.resize(length);
        id += "#" + std::to_string(number);
    }
    return Append({kind, std::move(id), WithoutControls(std::move(name)), {}, {}});
}

KemdInventoryItem& KemdInventory::Append(KemdInventoryItem item) {
    KemdInventoryItem& added = items.emplace_back(std::move(item));
    m_byId.emplace(added.id, &added);
    return added;
}

KemdInventoryItem* KemdInventory::Lookup(std::string_view id) const {
    const auto found = m_byId.find(id);
    return found == m_byId.end() ? nullptr : found->second;
}

const KemdInventoryItem* KemdInventory::Find(std::string_view id) const {
    return Lookup(id);
}

KemdInventoryItem* KemdInventory::Find(std::string_view id) {
    return Lookup(id);
}

void KemdInventory::Note(std::string_view subject, std::string_view reason) {
    std::string note;
    note.append(subject).append(": ").append(reason);
    if (std::find(notes.begin(), notes.end(), note) == notes.end()) notes.push_back(note);
}

void KemdInventory::NoteError(std::string_view subject, int error) {
    Note(subject, std::strerror(error));
}
