// One key of the registry's tree: a lock and the entries, sorted by name.
//
// Keys are shared: an entry of the parent and any number of cursors hold references. A key that is
// taken out of the tree is emptied and marked, with all below it, and stays so for whoever still
// holds it. Entries are reached through a LockedNode only. Of two keys, a parent is locked before
// its child; most code holds one lock at a time.
#pragma once

#include <endian.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "base/recursive_mutex.h"
#include "kemd/registry.h"

// The first bytes of a name as a number that sorts as the names do. Searching a key compares these
// numbers, which lie side by side, and fetches the text of a name only where they are equal.
inline constexpr size_t kNameOrderBytes = 6;
inline uint64_t NameOrder(std::string_view name) {
    uint64_t order = 0;
    if (name.size() >= sizeof order) {
        std::memcpy(&order, name.data(), sizeof order);
        return be64toh(order) >> (8 * (sizeof order - kNameOrderBytes));
    }
    for (size_t i = 0; i < kNameOrderBytes; ++i) {
        order = order << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0U);
    }
    return order;
}

class RegistryEntry {
  public:
    RegistryEntry() = default;
    ~RegistryEntry() {
        if (!IsPacked()) delete[] m_block;
    }
    // By exchange: inserting into a large key moves thousands of entries.
    RegistryEntry(RegistryEntry&& source) noexcept { *this = std::move(source); }
    RegistryEntry& operator=(RegistryEntry&& source) noexcept {
        std::swap(m_block, source.m_block);
        std::swap(m_bits, source.m_bits);
        m_node = std::move(source.m_node);
        return *this;
    }
    RegistryEntry(const RegistryEntry&) = delete;
    RegistryEntry& operator=(const RegistryEntry&) = delete;
    RegistryEntry(std::string_view name, int32_t number);
    // Text (kept up to its first NUL) or bytes. std::length_error when all is 2^32 bytes or more.
    RegistryEntry(std::string_view name, RegistryType type, std::string_view data);
    // `node` may be none.
    RegistryEntry(std::string_view name, RegistryKey node);

    [[nodiscard]] std::string_view Name() const { return {Text(), GetHead().nameSize}; }
    // Of the entry's name, see NameOrder.
    [[nodiscard]] uint64_t Order() const { return m_bits >> kOrderShift; }
    [[nodiscard]] uint32_t Type() const { return m_bits >> kTypeShift & 0x7FFF; }
    [[nodiscard]] bool IsSubkey() const { return Type() == kRegistrySubkey; }
    [[nodiscard]] const RegistryKey& Node() const { return m_node; }
    RegistryKey TakeNode() { return std::move(m_node); }
    [[nodiscard]] int32_t Number() const;
    // Of types 1 to 3.
    [[nodiscard]] std::string_view Data() const;
    // What a file has for a text or a number, with the line feed; of the others the name and the
    // bytes.
    [[nodiscard]] std::string_view Line() const { return {Text(), GetHead().size}; }

    // The text may lie in memory that several entries have in common: its size there, moving it to
    // that place, and taking it out again.
    [[nodiscard]] size_t PackedSize() const { return sizeof(Head) + GetHead().size; }
    void PackInto(char* place);
    void Unpack();

  private:
    static constexpr int kTypeShift = 1;
    static constexpr int kOrderShift = 16;

    struct Head {
        uint32_t nameSize;
        uint32_t size;
    };
    RegistryEntry(std::string_view name, uint32_t type, std::string_view data);
    [[nodiscard]] Head GetHead() const {
        Head head{};
        std::memcpy(&head, m_block, sizeof head);
        return head;
    }
    [[nodiscard]] bool IsPacked() const { return (m_bits & 1) != 0; }
    [[nodiscard]] const char* Text() const { return m_block + sizeof(Head); }

    const char* m_block = nullptr;  // the head and the line; owned unless packed
    RegistryKey m_node;
    uint64_t m_bits = 0;  // from below: packed, type, order
};

// The entries of a key. Those that come from a file have their texts side by side: half of a tree's
// memory would otherwise be the heap's own, and going over it would wait for memory at each value.
struct RegistryEntries {
    std::vector<RegistryEntry> list;
    std::unique_ptr<char[]> text;
};

// What stands between name and data in a file; empty for types that have no line of that form.
std::string_view RegistryMarker(uint32_t type);

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
