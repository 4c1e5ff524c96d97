// One value or subkey of a registry key: its name, type and data. Owns all of them. Movable, not
// copyable; no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "kemd/registry.h"

class RegistryEntry {
  public:
    RegistryEntry() = default;
    RegistryEntry(std::string_view name, int32_t number);
    // Text (kept up to its first NUL) or bytes. Fewer than 2^32.
    RegistryEntry(std::string_view name, RegistryType type, std::string_view data);
    // `node` may be none.
    RegistryEntry(std::string_view name, RegistryKey node);

    [[nodiscard]] const char* Name() const { return m_text.get(); }
    [[nodiscard]] uint32_t Type() const { return m_type; }
    [[nodiscard]] bool IsSubkey() const { return m_type == kRegistrySubkey; }
    [[nodiscard]] const RegistryKey& Node() const { return m_node; }
    [[nodiscard]] int32_t Number() const { return static_cast<int32_t>(m_number); }
    // Of types 1 to 3; a text is followed by a NUL.
    [[nodiscard]] std::string_view Data() const;

  private:
    RegistryEntry(std::string_view name, uint32_t type, std::string_view data, uint32_t number);

    // One allocation for the name, its NUL, the data and another NUL: half of a tree's memory would
    // otherwise be the heap's own.
    std::unique_ptr<char[]> m_text;
    RegistryKey m_node;
    uint32_t m_type = 0;
    uint32_t m_number = 0;  // type 4: the number; types 1 to 3: the size of the data
};
