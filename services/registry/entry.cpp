#include "services/registry/entry.h"

#include <cstring>
#include <utility>

#include "services/base/line_reader.h"

RegistryEntry::RegistryEntry(std::string_view name, uint32_t type, std::string_view data,
                             uint32_t number)
    : m_text(std::make_unique_for_overwrite<char[]>(name.size() + data.size() + 2)),
      m_type(type),
      m_number(number) {
    char* end = m_text.get() + name.copy(m_text.get(), name.size());
    *end++ = '\0';
    end[data.copy(end, data.size())] = '\0';
}

RegistryEntry::RegistryEntry(std::string_view name, int32_t number)
    : RegistryEntry(name, kRegistryNumber, {}, static_cast<uint32_t>(number)) {}

RegistryEntry::RegistryEntry(std::string_view name, RegistryType type, std::string_view data)
    : RegistryEntry(name, uint32_t{type}, type == kRegistryBinary ? data : CutAtNul(data), 0) {
    m_number = static_cast<uint32_t>(type == kRegistryBinary ? data.size() : CutAtNul(data).size());
}

RegistryEntry::RegistryEntry(std::string_view name, RegistryKey node)
    : RegistryEntry(name, kRegistrySubkey, {}, 0) {
    m_node = std::move(node);
}

std::string_view RegistryEntry::Data() const {
    if (m_type < kRegistryString || m_type > kRegistryBinary) return {};
    return {m_text.get() + std::strlen(m_text.get()) + 1, m_number};
}
