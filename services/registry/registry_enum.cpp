// Enumerating the subkeys and values of the open key.
#include <algorithm>
#include <cstring>
#include <exception>

#include "kemd/registry.h"
#include "services/registry/node.h"

namespace {

bool Matches(const RegistryEntry& entry, uint32_t filter) {
    if (filter == kRegistryAnyValue) return !entry.IsSubkey();
    return entry.Type() == filter;
}

// Cuts the name to what the buffer holds with a NUL; the length that was copied.
uint32_t CopyName(std::string_view name, char* buffer, uint32_t size) {
    if (size == 0) return 0;
    const size_t length = name.copy(buffer, size - 1);
    buffer[length] = '\0';
    return static_cast<uint32_t>(length);
}

}  // namespace

// The index-th entry that matches, or null. Goes on where the last call stopped when that is on the
// way and the key has not changed. Afterwards state.count says how many entries match up to there.
const RegistryEntry* CRegistry::Seek(const LockedNode& locked, EnumState& state, uint32_t index,
                                     uint32_t filter) {
    const bool goesOn =
        state.generation == locked.Generation() && state.filter == filter && state.count <= index;
    if (!goesOn) state = {0, filter, 0, locked.Generation()};
    const auto& entries = locked.Entries();
    while (state.next < entries.size()) {
        const RegistryEntry& entry = entries[state.next++];
        if (!Matches(entry, filter)) continue;
        if (state.count++ == index) return &entry;
    }
    return nullptr;
}

int32_t CRegistry::EnumKey(char* buffer, uint32_t size, uint32_t index) {
    return EnumKey(buffer, &size, index, nullptr);
}

int32_t CRegistry::EnumKey(char* buffer, uint32_t* length, uint32_t index, uint32_t* reserved) {
    if (!m_key || buffer == nullptr || length == nullptr) return kRegistryInvalid;
    const LockedNode locked(*m_key);
    if (locked.IsDeleted()) return kRegistryInvalid;
    const RegistryEntry* entry = Seek(locked, m_enumKeys, index, kRegistrySubkey);
    if (entry == nullptr) return kRegistryAbsent;
    *length = CopyName(entry->Name(), buffer, *length);
    if (reserved != nullptr) *reserved = 0;
    return 0;
}

int32_t CRegistry::EnumValue(char* name, uint32_t* nameLength, uint32_t index, uint32_t filter,
                             void* data, uint32_t* dataSize) try {
    if (!m_key || name == nullptr || nameLength == nullptr) return kRegistryInvalid;
    const LockedNode locked(*m_key);
    if (locked.IsDeleted()) return kRegistryInvalid;
    const RegistryEntry* entry = Seek(locked, m_enumValues, index, filter);
    if (entry == nullptr) {
        // Required: one position past the end there is an entry without name and type.
        const bool isVirtual =
            (filter == 0 || filter == kRegistryAnyValue) && m_enumValues.count == index;
        if (!isVirtual) return kRegistryAbsent;
        *nameLength = CopyName("", name, *nameLength);
        if (dataSize != nullptr) *dataSize = 0;
        return 0;
    }
    *nameLength = CopyName(entry->Name(), name, *nameLength);
    if (dataSize == nullptr) return 0;
    const bool isText = entry->Type() == kRegistryString || entry->Type() == kRegistryExpandString;
    if (data != nullptr && isText) {
        ReadEntry(*entry);
        return CopyText(static_cast<char*>(data), dataSize);
    }
    const bool isNumber = data != nullptr && entry->Type() == kRegistryNumber;
    *dataSize = isNumber && *dataSize >= sizeof(int32_t) ? sizeof(int32_t) : 0;
    const int32_t number = entry->Number();
    if (*dataSize != 0) std::memcpy(data, &number, sizeof number);
    return 0;
} catch (const std::exception&) {
    return kRegistryAbsent;
}

int32_t CRegistry::GetSubKeyCount(uint32_t* count) {
    if (count == nullptr) return kRegistryInvalid;
    *count = 0;
    if (!m_key) return kRegistryInvalid;
    const LockedNode locked(*m_key);
    if (locked.IsDeleted()) return kRegistryInvalid;
    *count = static_cast<uint32_t>(
        std::count_if(locked.Entries().begin(), locked.Entries().end(),
                      [](const RegistryEntry& entry) { return entry.IsSubkey(); }));
    return 0;
}
