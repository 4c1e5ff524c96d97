#include "services/registry/node.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "base/text.h"
#include "trace/debug.h"

RegistryEntry::RegistryEntry(std::string_view name, uint32_t type, std::string_view data)
    : m_name(name), m_size(static_cast<uint32_t>(data.size())), m_type(type) {
    // The reported size has 32 bits and counts a text's NUL.
    if (data.size() >= UINT32_MAX) throw std::length_error("registry entry");
    m_data = std::make_unique_for_overwrite<char[]>(data.size());
    data.copy(m_data.get(), data.size());
}

RegistryEntry::RegistryEntry(std::string_view name, RegistryType type, std::string_view data)
    : RegistryEntry(name, uint32_t{type}, type == kRegistryBinary ? data : CutAtNul(data)) {}

RegistryEntry::RegistryEntry(std::string_view name, int32_t number)
    : RegistryEntry(name, uint32_t{kRegistryNumber},
                    {reinterpret_cast<const char*>(&number), sizeof number}) {}

RegistryEntry::RegistryEntry(std::string_view name, RegistryKey node)
    : m_name(name), m_node(std::move(node)), m_type(kRegistrySubkey) {}

int32_t RegistryEntry::Number() const {
    int32_t number = 0;
    if (m_type == kRegistryNumber) std::memcpy(&number, m_data.get(), sizeof number);
    return number;
}

RegistryKey::RegistryKey(CRegistryNode* node) : m_node(node) {
    if (node != nullptr) node->m_references.fetch_add(1, std::memory_order_relaxed);
}

void RegistryKey::Release() {
    if (m_node->m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete m_node;
}

RegistryEntries CRegistryNode::Empty() {
    const RecursiveLock lock(m_lock);
    m_isDeleted = true;
    ++m_generation;
    return std::exchange(m_entries, {});
}

static void TraceDeleted(const RegistryEntry& entry) {
    if (entry.IsSubkey() && !entry.Node()) return;
    TRACE(2, "CRegistryNode::deleteNode \"%.*s\"\n", static_cast<int>(entry.Name().size()),
          entry.Name().data());
}

// A list instead of recursion, because a file decides how deep a tree is.
void CRegistryNode::DeleteEntries(RegistryEntries entries) {
    RegistryKey pending;
    const auto begin = [&pending](RegistryEntries& level) {
        for (RegistryEntry& entry : level) {
            TraceDeleted(entry);
            const RegistryKey node = entry.TakeNode();
            if (node) node->m_nextDeleted = std::exchange(pending, node);
        }
    };
    begin(entries);
    while (pending) {
        const RegistryKey node = pending;
        pending = std::exchange(node->m_nextDeleted, {});
        entries = node->Empty();
        begin(entries);
    }
}

LockedNode::Place LockedNode::Seek(std::string_view name) const {
    auto first = m_node.m_entries.begin();
    auto last = m_node.m_entries.end();
    while (first != last) {
        const auto middle = first + (last - first) / 2;
        const int result = name.compare(middle->Name());
        if (result == 0) return {middle, true};
        if (result > 0) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    return {first, false};
}

const RegistryEntry* LockedNode::Find(std::string_view name) const {
    const Place place = Seek(name);
    return place.isTaken ? &*place.entry : nullptr;
}

RemovedEntry LockedNode::Put(RegistryEntry entry) {
    const Place place = Seek(entry.Name());
    ++m_node.m_generation;
    if (place.isTaken) return RemovedEntry(std::exchange(*place.entry, std::move(entry)));
    m_node.m_entries.insert(place.entry, std::move(entry));
    return {};
}

std::vector<RemovedEntry> LockedNode::Merge(RegistryEntries entries) {
    std::vector<RemovedEntry> removed;
    if (m_node.m_entries.empty()) {
        ++m_node.m_generation;
        m_node.m_entries = std::move(entries);
        return removed;
    }
    // Allocates everything first, so that all entries are put or none.
    removed.reserve(entries.size());
    m_node.m_entries.reserve(m_node.m_entries.size() + entries.size());
    for (RegistryEntry& entry : entries) removed.push_back(Put(std::move(entry)));
    return removed;
}

RemovedEntry LockedNode::Remove(std::string_view name) {
    const Place place = Seek(name);
    if (!place.isTaken) return {};
    ++m_node.m_generation;
    RegistryEntry entry = std::move(*place.entry);
    m_node.m_entries.erase(place.entry);
    return RemovedEntry(std::move(entry));
}
