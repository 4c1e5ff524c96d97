// One key of the registry's tree: a lock and the entries, sorted by name. Taking paths apart.
//
// Keys are shared: the parent's entry and any number of cursors hold references. A key that is
// taken out of the tree is emptied and marked as deleted, with all below it, and stays so while
// cursors hold it. Only a LockedNode gives access to entries. A parent is locked before its child;
// most code holds one lock at a time.
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
    // `node` may be null.
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

    // Empties this key and all below it, however deep, and marks them as deleted. Allocates
    // nothing. Traces the names.
    void deleteNode() { DeleteEntries(Empty()); }
    // The same for entries that were taken out of a key.
    static void DeleteEntries(RegistryEntries entries);
    // Marks this key as deleted and returns its entries.
    RegistryEntries Empty();
    // Removes the mark.
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
    uint32_t m_generation = 0;  // changes whenever entries do
    RegistryKey m_nextDeleted;  // the next key that must still be emptied
};

// An entry that was taken out of a key. A subkey is emptied and marked at once; the destructor
// frees what was below it. No lock may be held then.
class RemovedEntry {
  public:
    RemovedEntry() = default;
    RemovedEntry(const RemovedEntry&) = delete;
    RemovedEntry& operator=(const RemovedEntry&) = delete;
    // The parent is locked, so that no thread can find and revive the subkey meanwhile.
    explicit RemovedEntry(RegistryEntry entry) : m_entry(std::move(entry)) {
        if (m_entry.Node()) m_below = m_entry.Node()->Empty();
    }
    ~RemovedEntry() { CRegistryNode::DeleteEntries(std::move(m_below)); }
    RemovedEntry(RemovedEntry&&) = default;
    RemovedEntry& operator=(RemovedEntry&&) = default;

    // Whether there was an entry.
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
    // Inserts the entry, or replaces and returns the one of its name.
    [[nodiscard]] RemovedEntry Put(RegistryEntry entry);
    // Puts all entries, which must be sorted and have different names.
    [[nodiscard]] std::vector<RemovedEntry> Merge(RegistryEntries entries);
    // Takes the entry out, if there is one.
    [[nodiscard]] RemovedEntry Remove(std::string_view name);

  private:
    struct Place {
        RegistryEntries::iterator entry;
        bool isTaken = false;
    };
    // Where the entry of that name is or would belong.
    [[nodiscard]] Place Seek(std::string_view name) const;

    RecursiveLock m_lock;
    CRegistryNode& m_node;
};

// The position of a path's first backslash or, without one, its first slash.
inline size_t FindSeparator(std::string_view path) {
    const size_t position = path.find('\\');
    return position != path.npos ? position : path.find('/');
}

// Returns the path's first component and removes it and its separator from the path.
inline std::string_view TakeComponent(std::string_view& path) {
    const size_t length = std::min(FindSeparator(path), path.size());
    const std::string_view component = path.substr(0, length);
    path.remove_prefix(std::min(length + 1, path.size()));
    return component;
}
