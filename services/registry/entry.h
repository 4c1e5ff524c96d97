// One value or subkey of a registry key: its name, type and data. Owns all of them. Movable, not
// copyable; no lock.
#pragma once

#include <endian.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

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
    RegistryEntry(std::string_view name, int32_t number);
    // Text (kept up to its first NUL) or bytes. Fewer than 2^32.
    RegistryEntry(std::string_view name, RegistryType type, std::string_view data);
    // `node` may be none.
    RegistryEntry(std::string_view name, RegistryKey node);

    [[nodiscard]] const char* Name() const { return m_block.get() + sizeof(Head); }
    [[nodiscard]] size_t NameSize() const { return GetHead().nameSize; }
    // Of the entry's name, see NameOrder.
    [[nodiscard]] uint64_t Order() const { return m_order; }
    [[nodiscard]] uint32_t Type() const { return m_type; }
    [[nodiscard]] bool IsSubkey() const { return m_type == kRegistrySubkey; }
    [[nodiscard]] const RegistryKey& Node() const { return m_node; }
    RegistryKey TakeNode() { return std::move(m_node); }
    [[nodiscard]] int32_t Number() const { return static_cast<int32_t>(GetHead().number); }
    // Of types 1 to 3; a text is followed by a NUL.
    [[nodiscard]] std::string_view Data() const {
        if (m_type < kRegistryString || m_type > kRegistryBinary) return {};
        const Head head = GetHead();
        return {Name() + head.nameSize + 1, head.number};
    }

  private:
    struct Head {
        uint32_t nameSize;
        uint32_t number;  // type 4: the number; types 1 to 3: the size of the data
    };
    RegistryEntry(std::string_view name, uint32_t type, std::string_view data, uint32_t number);
    [[nodiscard]] Head GetHead() const {
        Head head{};
        std::memcpy(&head, m_block.get(), sizeof head);
        return head;
    }

    // One allocation for the head, the name, its NUL, the data and another NUL: half of a tree's
    // memory would otherwise be the heap's own.
    std::unique_ptr<char[]> m_block;
    RegistryKey m_node;
    uint64_t m_order : 8 * kNameOrderBytes = 0;
    uint64_t m_type : 16 = 0;
};
