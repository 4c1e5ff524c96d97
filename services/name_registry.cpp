#include "services/name_registry.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string_view>

std::vector<NameRegistry::Entry>::iterator NameRegistry::Seek(const char* name) {
    return std::lower_bound(
        m_entries.begin(), m_entries.end(), name,
        [](const Entry& entry, const char* key) { return std::strcmp(entry.name.get(), key) < 0; });
}

bool NameRegistry::Matches(std::vector<Entry>::iterator position, const char* name) const {
    return position != m_entries.end() && std::strcmp(position->name.get(), name) == 0;
}

void* NameRegistry::Find(const char* name) {
    const RecursiveLock lock(m_lock);
    const auto position = Seek(name);
    return Matches(position, name) ? position->object : nullptr;
}

bool NameRegistry::Put(const char* name, void* object) try {
    const RecursiveLock lock(m_lock);
    const auto position = Seek(name);
    if (Matches(position, name)) {
        position->object = object;
        return true;
    }
    const std::string_view text(name);
    auto copy = std::make_unique<char[]>(text.size() + 1);
    text.copy(copy.get(), text.size());
    m_entries.insert(position, {std::move(copy), object});
    return true;
} catch (const std::exception&) {
    return false;
}

void NameRegistry::Remove(const char* name) {
    const RecursiveLock lock(m_lock);
    const auto position = Seek(name);
    if (Matches(position, name)) m_entries.erase(position);
}
