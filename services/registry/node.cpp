#include "services/registry/node.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "trace/debug.h"

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
    return {std::exchange(m_entries, {}), std::move(m_text)};
}

static void TraceDeleted(const RegistryEntry& entry) {
    if (entry.IsSubkey() && !entry.Node()) return;
    TRACE(2, "CRegistryNode::deleteNode \"%.*s\"\n", static_cast<int>(entry.Name().size()),
          entry.Name().data());
}

// With a list instead of recursion: a file decides how deep a tree is.
void CRegistryNode::DeleteEntries(RegistryEntries entries) {
    RegistryKey pending;
    const auto begin = [&pending](RegistryEntries& level) {
        for (RegistryEntry& entry : level.list) {
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

// As strcmp. `order` is the name's.
static int Compare(const RegistryEntry& entry, std::string_view name, uint64_t order) {
    if (entry.Order() != order) return entry.Order() < order ? -1 : 1;
    return entry.Name().compare(name);
}

// Fetches the entries of a small key at once: the steps of a search would wait for one cache line
// after the other.
static void Prefetch(const std::vector<RegistryEntry>& entries) {
    constexpr size_t kLine = 64;
    constexpr size_t kMost = 8 * kLine;
    const auto* bytes = reinterpret_cast<const char*>(entries.data());
    const size_t size = std::min(entries.size() * sizeof(RegistryEntry), kMost);
    for (size_t offset = 0; offset < size; offset += kLine) __builtin_prefetch(bytes + offset);
}

LockedNode::Place LockedNode::Seek(std::string_view name) const {
    const auto& entries = m_node.m_entries;
    Prefetch(entries);
    const uint64_t order = NameOrder(name);
    size_t first = 0;
    size_t last = entries.size();
    while (first < last) {
        const size_t middle = (first + last) / 2;
        const int result = Compare(entries[middle], name, order);
        if (result == 0) return {middle, true};
        if (result < 0) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    return {first, false};
}

const RegistryEntry* LockedNode::Find(std::string_view name) const {
    const Place place = Seek(name);
    return place.isTaken ? &m_node.m_entries[place.position] : nullptr;
}

RemovedEntry LockedNode::Put(RegistryEntry entry) {
    constexpr size_t kGrowth = 16;
    auto& entries = m_node.m_entries;
    const Place place = Seek(entry.Name());
    ++m_node.m_generation;
    if (place.isTaken) {
        return RemovedEntry(std::exchange(entries[place.position], std::move(entry)));
    }
    if (entries.size() == entries.capacity()) {
        entries.reserve(entries.size() + std::max(kGrowth, entries.size() / 2));
    }
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(place.position), std::move(entry));
    return {};
}

std::vector<RemovedEntry> LockedNode::Merge(RegistryEntries entries) {
    std::vector<RemovedEntry> removed;
    if (m_node.m_entries.empty()) {
        ++m_node.m_generation;
        m_node.m_entries = std::move(entries.list);
        m_node.m_text = std::move(entries.text);
        return removed;
    }
    // All memory first: the entries are put together or not at all.
    removed.reserve(entries.list.size());
    m_node.m_entries.reserve(m_node.m_entries.size() + entries.list.size());
    for (RegistryEntry& entry : entries.list) entry.Unpack();
    for (RegistryEntry& entry : entries.list) removed.push_back(Put(std::move(entry)));
    return removed;
}

RemovedEntry LockedNode::Remove(std::string_view name) {
    const Place place = Seek(name);
    auto& entries = m_node.m_entries;
    if (!place.isTaken) return {};
    ++m_node.m_generation;
    RegistryEntry entry = std::move(entries[place.position]);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(place.position));
    return RemovedEntry(std::move(entry));
}

int CompareNames(const RegistryEntry& a, const RegistryEntry& b) {
    return Compare(a, b.Name(), b.Order());
}
