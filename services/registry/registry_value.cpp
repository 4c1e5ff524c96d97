// CRegistry: reading, setting and enumerating what the open key holds.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "kemd/registry.h"
#include "services/registry/store.h"
#include "trace/debug.h"

namespace {

// Replaces every %NAME% by the environment variable, "%%" by one "%".
std::string Expand(std::string_view text) {
    std::string expanded;
    for (;;) {
        const size_t begin = text.find('%');
        const size_t end = begin == text.npos ? begin : text.find('%', begin + 1);
        if (end == text.npos) return expanded.append(text);
        const std::string name(text.substr(begin + 1, end - begin - 1));
        const char* const value = name.empty() ? "%" : std::getenv(name.c_str());
        expanded.append(text.substr(0, begin)).append(value != nullptr ? value : "");
        text.remove_prefix(end + 1);
    }
}

// Whether data of this type and size can be stored.
bool IsStorable(const void* data, uint32_t size, uint32_t type) {
    if (data == nullptr && size != 0) return false;
    return type == kRegistryNumber ? size == sizeof(int32_t)
                                   : type >= kRegistryString && type <= kRegistryBinary;
}

RegistryEntry NewEntry(const char* name, const void* data, uint32_t size, uint32_t type) {
    if (type != kRegistryNumber) {
        return RegistryEntry(name, static_cast<RegistryType>(type),
                             {static_cast<const char*>(data), size});
    }
    int32_t number = 0;
    std::memcpy(&number, data, sizeof number);
    return RegistryEntry(name, number);
}

bool Matches(const RegistryEntry& entry, uint32_t filter) {
    if (filter == kRegistryAnyValue) return !entry.IsSubkey();
    return entry.Type() == filter;
}

// Cuts the name to what fits with a NUL. Returns the length that was copied.
uint32_t CopyName(std::string_view name, char* buffer, uint32_t size) {
    if (size == 0) return 0;
    const size_t length = name.copy(buffer, size - 1);
    buffer[length] = '\0';
    return static_cast<uint32_t>(length);
}

}  // namespace

bool CRegistry::SetValue(const char* name, const void* data, uint32_t size, uint32_t type,
                         const RegistryHandle& node) try {
    TheRegistryStore().MarkDirty();
    TRACE(2, "CRegistry::SetValue \"%s\" %d %d\n", name, static_cast<int>(size),
          static_cast<int>(type));
    const RegistryKey key = KeyOf(node);
    if (!key || !IsStorable(data, size, type) || TheRegistryStore().IsReadOnly()) return false;
    RemovedEntry replaced;  // freed after the lock
    LockedNode locked(*key);
    if (locked.IsDeleted()) return false;
    if (name == nullptr) return true;
    replaced = locked.Put(NewEntry(name, data, size, type));
    TheRegistryStore().MarkDirty();
    if (replaced) {
        TRACE(2, "CRegistry::SetValue oEntry = %p\n", static_cast<const void*>(locked.Find(name)));
    }
    return true;
} catch (const std::exception&) {
    return false;
}

int32_t CRegistry::SetValue(const char* name, int32_t number) {
    return SetValue(name, &number, sizeof number, kRegistryNumber) ? 0 : kRegistryInvalid;
}

int32_t CRegistry::SetValue(const char* name, const char* text) {
    if (text == nullptr) return kRegistryInvalid;
    const auto size = static_cast<uint32_t>(std::strlen(text));
    return SetValue(name, text, size, kRegistryString) ? 0 : kRegistryInvalid;
}

// All reads go through here: into m_value, with size and type.
int32_t CRegistry::Read(const RegistryKey& key, const char* name) {
    m_valueSize = 0;
    m_valueType = 0;
    m_value.clear();
    if (!key) return kRegistryInvalid;
    const LockedNode locked(*key);
    if (locked.IsDeleted()) return kRegistryInvalid;
    const RegistryEntry* entry = name != nullptr ? locked.Find(name) : nullptr;
    if (entry == nullptr) return kRegistryAbsent;
    ReadEntry(*entry);
    return 0;
}

void CRegistry::ReadEntry(const RegistryEntry& entry) {
    m_valueType = entry.Type();
    m_value = entry.Data();
    m_valueSize = static_cast<uint32_t>(m_value.size() + (entry.IsText() ? 1 : 0));
    if (m_expand && m_valueType == kRegistryExpandString) m_value = Expand(m_value);
}

int32_t CRegistry::ReadText(const char* name, const RegistryHandle& node) {
    const int32_t result = Read(KeyOf(node), name);
    if (result != 0) return result;
    const bool isText = m_valueType == kRegistryString || m_valueType == kRegistryExpandString;
    return isText ? 0 : kRegistryAbsent;
}

int32_t CRegistry::QueryValue(int32_t* out, const char* name, const RegistryHandle& node) try {
    const int32_t result = Read(KeyOf(node), name);
    if (result != 0) return result;
    if (m_valueType != kRegistryNumber || out == nullptr) return kRegistryAbsent;
    std::memcpy(out, m_value.data(), sizeof *out);
    return 0;
} catch (const std::exception&) {
    return kRegistryAbsent;
}

int32_t CRegistry::QueryValue(std::string* out, const char* name, const RegistryHandle& node) try {
    const int32_t result = ReadText(name, node);
    if (result != 0) return result;
    if (out == nullptr) return kRegistryAbsent;
    *out = m_value;
    return 0;
} catch (const std::exception&) {
    return kRegistryAbsent;
}

int32_t CRegistry::QueryValue(std::vector<uint8_t>* out, const char* name,
                              const RegistryHandle& node) try {
    const int32_t result = Read(KeyOf(node), name);
    if (result != 0) return result;
    if (m_valueType != kRegistryBinary || out == nullptr) return kRegistryAbsent;
    out->assign(m_value.begin(), m_value.end());
    return 0;
} catch (const std::exception&) {
    return kRegistryAbsent;
}

int32_t CRegistry::QueryValue(char* buffer, const char* name, uint32_t size,
                              const RegistryHandle& node) try {
    const int32_t result = ReadText(name, node);
    if (result != 0 || buffer == nullptr) return result;
    m_value.copy(buffer, size);
    if (m_value.size() >= size) return kRegistryTooLong;
    buffer[m_value.size()] = '\0';
    return 0;
} catch (const std::exception&) {
    return kRegistryAbsent;
}

int32_t CRegistry::QueryValue(char* buffer, const char* name, uint32_t* count,
                              const RegistryHandle& node) try {
    const RegistryKey key = KeyOf(node);
    if (!key || key->IsDeleted()) return kRegistryInvalid;
    if (count == nullptr) {
        TRACE(1, "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
        return kRegistryTooLong;
    }
    const int32_t result = ReadText(name, node);
    return result == 0 ? CopyText(buffer, count) : result;
} catch (const std::exception&) {
    return kRegistryAbsent;
}

// Copies the value last read.
int32_t CRegistry::CopyText(char* buffer, uint32_t* count) const {
    const auto length = static_cast<uint32_t>(m_value.size());
    if (buffer == nullptr) {
        *count = length + 1;
        return 0;
    }
    m_value.copy(buffer, *count);
    if (length >= *count) return kRegistryTooLong;
    buffer[length] = '\0';
    *count = length;
    return 0;
}

bool CRegistry::ReadIdentifierValue(std::string& out, const char* name) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        CRegistry registry;
        if (registry.OpenIdentifierKey() == 0 && registry.QueryValue(&out, name) == 0) {
            return true;
        }
    }
    return false;
}

// The index-th entry that matches, or null. Continues where the last call stopped, unless that is
// past the index or the key has changed. Afterwards state.count entries have matched.
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
    if (data != nullptr && entry->IsText()) {
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
