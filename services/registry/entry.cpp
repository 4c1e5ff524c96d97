#include "services/registry/entry.h"

#include <utility>

#include "services/base/line_reader.h"

RegistryEntry::RegistryEntry(std::string_view name, uint32_t type, std::string_view data,
                             uint32_t number)
    : m_block(std::make_unique_for_overwrite<char[]>(sizeof(Head) + name.size() + data.size() + 2)),
      m_order(NameOrder(name)),
      m_type(type) {
    const Head head{static_cast<uint32_t>(name.size()), number};
    std::memcpy(m_block.get(), &head, sizeof head);
    char* end = m_block.get() + sizeof head;
    end += name.copy(end, name.size());
    *end++ = '\0';
    end[data.copy(end, data.size())] = '\0';
}

RegistryEntry::RegistryEntry(std::string_view name, int32_t number)
    : RegistryEntry(name, kRegistryNumber, {}, static_cast<uint32_t>(number)) {}

// Text is kept up to its first NUL.
static std::string_view StoredPart(RegistryType type, std::string_view data) {
    return type == kRegistryBinary ? data : CutAtNul(data);
}

RegistryEntry::RegistryEntry(std::string_view name, RegistryType type, std::string_view data)
    : RegistryEntry(name, uint32_t{type}, StoredPart(type, data),
                    static_cast<uint32_t>(StoredPart(type, data).size())) {}

RegistryEntry::RegistryEntry(std::string_view name, RegistryKey node)
    : RegistryEntry(name, kRegistrySubkey, {}, 0) {
    m_node = std::move(node);
}
