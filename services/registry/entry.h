// One value or subkey of a registry key: its name, type and data. Owns all of them. Movable, not
// copyable; no lock.
#pragma once

#include <endian.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

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
