// One key of the registry's tree: a lock and the entries, sorted by name.
//
// Keys are shared: an entry of the parent and any number of cursors hold references. A key that is
// taken out of the tree is emptied and marked, with all below it, and stays so for whoever still
// holds it. Entries are reached through a LockedNode only. Of two keys, a parent is locked before
// its child; most code holds one lock at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <vector>

#include "services/base/recursive_mutex.h"
#include "services/registry/entry.h"

class CRegistryNode {
  public:
    explicit constexpr CRegistryNode(int32_t references = 0) : m_references(references) {}
    ~CRegistryNode() { deleteNode(); }
    CRegistryNode(const CRegistryNode&) = delete;
    CRegistryNode& operator=(const CRegistryNode&) = delete;

    // Empties and marks this key and all below it, however deep. Traces the names.
    void deleteNode();
    // Takes the mark away.
    void Revive();

  private:
    friend class LockedNode;
    friend class RegistryKey;
    std::vector<RegistryEntry> TakeEntries();

    RecursiveMutex m_lock;
    std::atomic<int32_t> m_references;
    bool m_isDeleted = false;
    uint32_t m_generation = 0;  // changes with the set of entries
    std::vector<RegistryEntry> m_entries;
};

// Holds the lock of a key and gives access to its entries. Pointers are valid until the next Put or
// Remove.
class LockedNode {
  public:
    explicit LockedNode(CRegistryNode& node) : m_lock(node.m_lock), m_node(node) {}

    [[nodiscard]] bool IsDeleted() const { return m_node.m_isDeleted; }
    [[nodiscard]] uint32_t Generation() const { return m_node.m_generation; }
    [[nodiscard]] const std::vector<RegistryEntry>& Entries() const { return m_node.m_entries; }
    // Null when there is none.
    [[nodiscard]] const RegistryEntry* Find(std::string_view name) const;
    // Inserts the entry or replaces the one of its name, which goes to `replaced`.
    const RegistryEntry* Put(RegistryEntry entry, RegistryEntry& replaced);
    // Takes the entry out; false when there is none.
    bool Remove(std::string_view name, RegistryEntry& removed);
    // Gives memory back that was kept for more entries.
    void Trim() { m_node.m_entries.shrink_to_fit(); }

  private:
    // The position of the first entry that does not sort before `name`.
    [[nodiscard]] size_t Seek(std::string_view name) const;

    RecursiveLock m_lock;
    CRegistryNode& m_node;
};

// Ends an entry that was taken out of the tree, with all below it. No lock may be held.
void Discard(const RegistryEntry& entry);
