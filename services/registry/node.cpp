#include "services/registry/node.h"

#include <cstring>
#include <utility>

#include "trace/debug.h"

RegistryKey::RegistryKey(CRegistryNode* node) : m_node(node) {
    if (node != nullptr) node->m_references.fetch_add(1, std::memory_order_relaxed);
}

void RegistryKey::Release() {
    if (m_node->m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete m_node;
}

std::vector<RegistryEntry> CRegistryNode::TakeEntries() {
    const RecursiveLock lock(m_lock);
    m_isDeleted = true;
    ++m_generation;
    return std::exchange(m_entries, {});
}

// With a stack of its own: a file decides how deep a tree is.
void CRegistryNode::deleteNode() {
    struct Level {
        std::vector<RegistryEntry> entries;
        size_t next = 0;
    };
    std::vector<Level> levels;
    std::vector<RegistryEntry> entries = TakeEntries();
    if (!entries.empty()) levels.push_back({std::move(entries)});
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.entries.size()) {
            levels.pop_back();
            continue;
        }
        const RegistryEntry& entry = level.entries[level.next++];
        if (entry.IsSubkey() && !entry.Node()) continue;
        TRACE(2, "CRegistryNode::deleteNode \"%s\"\n", entry.Name());
        if (entry.IsSubkey()) levels.push_back({entry.Node()->TakeEntries()});
    }
}

void CRegistryNode::Revive() {
    const RecursiveLock lock(m_lock);
    m_isDeleted = false;
}

// As strcmp; the name of an entry ends with a NUL, the one that is looked for need not.
static int Compare(const char* entryName, std::string_view name) {
    const int order = std::strncmp(entryName, name.data(), name.size());
    return order != 0 ? order : static_cast<unsigned char>(entryName[name.size()]);
}

size_t LockedNode::Seek(std::string_view name) const {
    const auto& entries = m_node.m_entries;
    // A file is sorted as it was written: nearly every entry that is read belongs to the end.
    if (entries.empty() || Compare(entries.back().Name(), name) < 0) return entries.size();
    size_t first = 0;
    size_t last = entries.size() - 1;
    while (first < last) {
        const size_t middle = (first + last) / 2;
        if (Compare(entries[middle].Name(), name) < 0) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    return first;
}

const RegistryEntry* LockedNode::Find(std::string_view name) const {
    const size_t position = Seek(name);
    const auto& entries = m_node.m_entries;
    if (position == entries.size() || Compare(entries[position].Name(), name) != 0) return nullptr;
    return &entries[position];
}

const RegistryEntry* LockedNode::Put(RegistryEntry entry, RegistryEntry& replaced) {
    constexpr size_t kGrowth = 16;
    auto& entries = m_node.m_entries;
    const size_t position = Seek(entry.Name());
    ++m_node.m_generation;
    if (position < entries.size() && Compare(entries[position].Name(), entry.Name()) == 0) {
        replaced = std::exchange(entries[position], std::move(entry));
        return &entries[position];
    }
    if (entries.size() == entries.capacity()) entries.reserve(entries.size() + kGrowth);
    return &*entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(position),
                            std::move(entry));
}

bool LockedNode::Remove(std::string_view name, RegistryEntry& removed) {
    const size_t position = Seek(name);
    auto& entries = m_node.m_entries;
    if (position == entries.size() || Compare(entries[position].Name(), name) != 0) return false;
    ++m_node.m_generation;
    removed = std::move(entries[position]);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
    return true;
}

void Discard(const RegistryEntry& entry) {
    if (entry.Node()) entry.Node()->deleteNode();
}
