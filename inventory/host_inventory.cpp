#include "inventory/host_inventory.h"

#include <algorithm>
#include <cstring>

namespace {

template <typename Items>
auto* FindItem(Items& items, std::string_view id) {
    const auto found = std::find_if(items.begin(), items.end(),
                                    [id](const KemdInventoryItem& item) { return item.id == id; });
    return found == items.end() ? nullptr : &*found;
}

}  // namespace

KemdInventoryItem& KemdInventory::Add(ItemKind kind, std::string id, std::string name) {
    id = WithoutControls(std::move(id));
    const size_t length = id.size();
    for (unsigned number = 2; Find(id) != nullptr; ++number) {
        id.resize(length);
        id += "#" + std::to_string(number);
    }
    return items.emplace_back(
        KemdInventoryItem{kind, std::move(id), WithoutControls(std::move(name)), {}, {}});
}

const KemdInventoryItem* KemdInventory::Find(std::string_view id) const {
    return FindItem(items, id);
}

KemdInventoryItem* KemdInventory::Find(std::string_view id) {
    return FindItem(items, id);
}

void KemdInventory::Note(std::string_view subject, std::string_view reason) {
    std::string note;
    note.append(subject).append(": ").append(reason);
    if (std::find(notes.begin(), notes.end(), note) == notes.end()) notes.push_back(note);
}

void KemdInventory::NoteError(std::string_view subject, int error) {
    Note(subject, std::strerror(error));
}
