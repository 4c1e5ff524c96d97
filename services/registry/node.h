// One key of the registry's tree: a lock and the entries, sorted by name.
//
// Keys are shared: an entry of the parent and any number of cursors hold references. A key that is
// taken out of the tree is emptied and marked, with all below it, and stays so for whoever still
// holds it. Entries are reached through a LockedNode only. Of two keys, a parent is locked before
// its child; most code holds one lock at a time.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/recursive_mutex.h"
#include "kemd/registry.h"

// One value or subkey of a key: its name, type and data. Owns all of them. Movable, not copyable;
// no lock.
class RegistryEntry {
  public:
    RegistryEntry() = default;
    RegistryEntry(std::string_view name, int32_t number);
    // Text (kept up to its first NUL) or bytes. std::length_error when that is 2^32 bytes or more.
    RegistryEntry(std::string_view name, RegistryType type, std::string_view data);
    // `node` may be none.
    RegistryEntry(std::string_view name, RegistryKey node);

    [[nodiscard]] const std::string& Name() const { return m_name; }
    // 0: no entry.
    [[nodiscard]] uint32_t Type() const { return m_type; }
    [[nodiscard]] bool IsSubkey() const { return m_type == kRegistrySubkey; }
    [[nodiscard]] bool IsText() const {
        return m_type == kRegistryString || m_type == kRegistryExpandString;
    }
    // Text, bytes, or the four bytes of a number.
    [[nodiscard]] std::string_view Data() const { return {m_data.get(), m_size}; }
    // 0 for other types.
    [[nodiscard]] int32_t Number() const;
    [[nodiscard]] const RegistryKey& Node() const { return m_node; }
    RegistryKey TakeNode() { return std::move(m_node); }

  private:
    RegistryEntry(std::string_view name, uint32_t type, std::string_view data);

    std::string m_name;
    RegistryKey m_node;
    std::unique_ptr<char[]> m_data;
    uint32_t m_size = 0;  // of the data
    uint32_t m_type = 0;
};

using RegistryEntries = std::vector<RegistryEntry>;

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
    // May change at any time unless the key is locked.
    [[nodiscard]] bool IsDeleted() const { return m_isDeleted; }

  private:
    friend class LockedNode;
    friend class RegistryKey;

    RecursiveMutex m_lock;
    std::atomic<int32_t> m_references;
    std::atomic<bool> m_isDeleted{false};
    RegistryEntries m_entries;  // sorted by name
    uint32_t m_generation = 0;  // changes with the set of entries
    RegistryKey m_nextDeleted;  // a list of keys that are still to be emptied
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
    [[nodiscard]] const RegistryEntries& Entries() const { return m_node.m_entries; }
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
        RegistryEntries::iterator entry;
        bool isTaken = false;
    };
    // Where the entry of that name is, or else belongs.
    [[nodiscard]] Place Seek(std::string_view name) const;

    RecursiveLock m_lock;
    CRegistryNode& m_node;
};
// Taking the path of a key apart.

// The first backslash or, when there is none, the first slash.
inline size_t FindSeparator(std::string_view path) {
    const size_t position = path.find('\\');
    return position != path.npos ? position : path.find('/');
}

// The path's first component; takes it and its separator off.
inline std::string_view TakeComponent(std::string_view& path) {
    const size_t length = std::min(FindSeparator(path), path.size());
    const std::string_view component = path.substr(0, length);
    path.remove_prefix(std::min(length + 1, path.size()));
    return component;
}
