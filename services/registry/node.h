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
#include <utility>
#include <vector>

#include "base/recursive_mutex.h"
#include "services/registry/entry.h"

class CRegistryNode {
  public:
    explicit constexpr CRegistryNode(int32_t references = 0) : m_references(references) {}
    ~CRegistryNode() { deleteNode(); }
    CRegistryNode(const CRegistryNode&) = delete;
    CRegistryNode& operator=(const CRegistryNode&) = delete;

    // Empties and marks this key and all below it, however deep; needs no memory. Traces the names.
    void deleteNode() { DeleteEntries(Empty()); }
    // The same for entries that were taken out of a key.
    static void DeleteEntries(RegistryEntries entries);
    // Marks this key and gives its entries away.
    RegistryEntries Empty();
    // Takes the mark away.
    void Revive() { m_isDeleted = false; }
    // Begins to fetch what a search in this key reads behind its lock.
    void Prefetch() const { __builtin_prefetch(&m_entries); }
    // May change at any time unless the key is locked.
    [[nodiscard]] bool IsDeleted() const { return m_isDeleted; }

  private:
    friend class LockedNode;
    friend class RegistryKey;

    RecursiveMutex m_lock;
    std::atomic<int32_t> m_references;
    std::atomic<bool> m_isDeleted{false};
    uint32_t m_generation = 0;  // changes with the set of entries
    std::vector<RegistryEntry> m_entries;
    std::unique_ptr<char[]> m_text;  // of packed entries
    RegistryKey m_nextDeleted;       // a list of keys that are still to be emptied
};

// An entry that was taken out of a key. A subkey is empty and marked from then on; the end of this
// object frees what was below it, and must find no lock held.
class RemovedEntry {
  public:
    RemovedEntry() = default;
    RemovedEntry(const RemovedEntry&) = delete;
    RemovedEntry& operator=(const RemovedEntry&) = delete;
    // The parent is locked: nobody can find the subkey and revive it in between.
    explicit RemovedEntry(RegistryEntry entry) : m_entry(std::move(entry)) {
        if (m_entry.Node()) m_below = m_entry.Node()->Empty();
    }
    ~RemovedEntry() { CRegistryNode::DeleteEntries(std::move(m_below)); }
    RemovedEntry(RemovedEntry&&) = default;
    RemovedEntry& operator=(RemovedEntry&&) = default;

    // Whether there was one.
    explicit operator bool() const { return m_entry.Type() != 0; }

  private:
    RegistryEntry m_entry;
    RegistryEntries m_below;
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
    // Inserts the entry or replaces the one of its name, which is returned.
    [[nodiscard]] RemovedEntry Put(RegistryEntry entry);
    // Puts all of them, which are sorted and have different names.
    [[nodiscard]] std::vector<RemovedEntry> Merge(RegistryEntries entries);
    // Takes the entry out, when there is one.
    [[nodiscard]] RemovedEntry Remove(std::string_view name);

  private:
    struct Place {
        size_t position;
        bool isTaken;
    };
    // Where the entry of that name is, or else belongs.
    [[nodiscard]] Place Seek(std::string_view name) const;

    RecursiveLock m_lock;
    CRegistryNode& m_node;
};
// As strcmp.
int CompareNames(const RegistryEntry& a, const RegistryEntry& b);
