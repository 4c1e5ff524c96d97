// CRegistry: construction, and opening, creating and deleting keys.
#include "kemd/registry.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <exception>
#include <string_view>
#include <utility>

#include "services/registry/node.h"
#include "services/registry/store.h"
#include "trace/debug.h"

namespace {

// The suite's identifier key, below a root key.
constexpr const char* kIdentifierKey =
    R"(SYSTEM\CurrentControlSet\Control\UUID\7C41E0B8-93D5-4F6A-A2C7-5E18D90B64F3)";

// Null when there is no entry of that name, or a value.
RegistryKey FindSubkey(CRegistryNode& node, std::string_view name) {
    const LockedNode locked(node);
    const RegistryEntry* entry = locked.Find(name);
    return entry != nullptr ? entry->Node() : RegistryKey();
}

// As FindSubkey, but creates the subkey when there is no entry of that name.
RegistryKey EnsureSubkey(CRegistryNode& node, std::string_view name) {
    LockedNode locked(node);
    if (locked.IsDeleted()) return {};
    const RegistryEntry* entry = locked.Find(name);
    if (entry != nullptr) return entry->Node();
    if (TheRegistryStore().IsReadOnly()) return {};
    RegistryKey key(new CRegistryNode);
    (void)locked.Put(RegistryEntry(name, key));  // replaces nothing
    TheRegistryStore().MarkDirty();
    return key;
}

template <typename Step>
RegistryKey Walk(RegistryKey key, std::string_view path, Step step) {
    while (key && !path.empty()) key = step(*key, TakeComponent(path));
    return key && !key->IsDeleted() ? key : RegistryKey();
}

unsigned ShortAddress(const RegistryKey& key) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(key.Get()));
}

}  // namespace

RegistryKey RegistryHandle::Key() const {
    return m_kind == kRoot ? TheRegistryStore().RootKey(m_root) : m_key;
}

CRegistry::CRegistry() {
    InitClass();
}

CRegistry::CRegistry(RegistryRoot root) {
    InitClass();
    SetKey(TheRegistryStore().RootKey(root));
}

CRegistry::CRegistry(const char* path, const RegistryHandle& hKey) {
    InitClass();
    m_status = Open(path, hKey);
}

CRegistry::CRegistry(const CRegistry& source) {
    *this = source;
}

CRegistry& CRegistry::operator=(const CRegistry& source) {
    if (this == &source) return *this;
    InitClass();
    SetKey(source.m_key);
    try {
        m_path = source.m_path;
    } catch (const std::exception&) {
        m_path.clear();
    }
    return *this;
}

// Takes no lock unless something was changed. A destructor must not change errno.
CRegistry::~CRegistry() {
    const int error = errno;
    if (TheRegistryStore().IsDirty()) SaveTree();
    errno = error;
}

void CRegistry::InitClass() try {
    TRACE(2, "\nCRegistry::InitClass");
    m_status = 0;
    m_expand = true;
    m_valueSize = 0;
    m_valueType = 0;
    SetKey({});
    m_value.clear();
    m_path.clear();
    SetupTree(false);
    TheRegistryStore().EnsureRootKeys();
} catch (const std::exception&) {
    // Without memory for the root keys all operations fail.
}

void CRegistry::SetupTree(bool forceSetup) {
    TheRegistryStore().Setup(forceSetup);
}

bool CRegistry::SaveTree() {
    return TheRegistryStore().Save();
}

RegistryKey CRegistry::KeyOf(const RegistryHandle& handle) const {
    return handle.IsNull() ? m_key : handle.Key();
}

void CRegistry::SetKey(RegistryKey key) {
    m_key = std::move(key);
    m_enumKeys = {};
    m_enumValues = {};
}

int32_t CRegistry::Open(const char* path, const RegistryHandle& hKey) {
    RegistryKey start = hKey.Key();
    TRACE(2, "\nCRegistry::Open \"%s\", hKey = %d\n", path, static_cast<int>(ShortAddress(start)));
    if (hKey.IsNull()) start = TheRegistryStore().Root();
    return OpenFrom(std::move(start), path);
}

int32_t CRegistry::OpenFrom(RegistryKey start, const char* path) try {
    m_status = kRegistryFailed;
    const std::string_view text = path != nullptr ? path : "";
    SetKey(path != nullptr ? Walk(std::move(start), text, FindSubkey) : RegistryKey());
    if (!m_key) {
        m_path.clear();
        return m_status;
    }
    m_path = text;  // may be this object's own path
    for (char& c : m_path) c = c == '\\' ? '/' : c;
    m_status = 0;
    return m_status;
} catch (const std::exception&) {
    SetKey({});
    return m_status;
}

int32_t CRegistry::OpenPointerFrom(const RegistryKey& start, const char* path,
                                   const char* name) try {
    TRACE(2, "CRegistry::OpenPointer \"%s\"\n", path);
    TRACE(2, "\nCRegistry::Open \"%s\", hKey = %d\n", path, static_cast<int>(ShortAddress(start)));
    if (OpenFrom(start, path) != 0) return kRegistryFailed;
    std::string target;
    const int32_t result = QueryValue(&target, name);
    m_status = kRegistryFailed;
    const size_t separator = FindSeparator(target);
    if (result != 0 || separator == target.npos) return kRegistryFailed;
    for (size_t i = 0; i < separator; ++i) {
        target[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(target[i])));
    }
    target[separator] = '/';
    return Open(target.c_str());
} catch (const std::exception&) {
    return kRegistryFailed;
}

int32_t CRegistry::OpenPointer(const char* path, const char* name, const RegistryHandle& hKey) {
    return OpenPointerFrom(KeyOf(hKey), path, name);
}

int32_t CRegistry::OpenPointer(const char* name, const RegistryHandle& hKey) {
    return OpenPointerFrom(KeyOf(hKey), kIdentifierKey, name);
}

int32_t CRegistry::OpenIdentifierKey() {
    return Open(kIdentifierKey, HKEY_LOCAL_MACHINE);
}

int32_t CRegistry::CreateKey(const RegistryHandle& node, const char* path) try {
    TRACE(2, "CRegistry::CreateKey \"%s\"\n", path != nullptr ? path : "<null>");
    TheRegistryStore().MarkDirty();
    RegistryKey start = KeyOf(node);
    if (!start || path == nullptr) return kRegistryFailed;
    RegistryKey key = Walk(std::move(start), path, EnsureSubkey);
    if (!key) return kRegistryFailed;
    SetKey(std::move(key));
    return 0;
} catch (const std::exception&) {
    return kRegistryFailed;
}

int32_t CRegistry::Remove(const char* name, bool onlySubkey) {
    TheRegistryStore().MarkDirty();
    if (!m_key) return kRegistryInvalid;
    if (TheRegistryStore().IsReadOnly()) return kRegistryFailed;
    RemovedEntry removed;  // freed after the lock
    LockedNode locked(*m_key);
    if (locked.IsDeleted()) return kRegistryInvalid;
    const RegistryEntry* entry = name != nullptr ? locked.Find(name) : nullptr;
    if (entry == nullptr || (onlySubkey && !entry->IsSubkey())) {
        return onlySubkey ? kRegistryInvalid : 0;
    }
    removed = locked.Remove(name);
    TheRegistryStore().MarkDirty();
    return 0;
}

int32_t CRegistry::DeleteKey(const char* name) {
    TRACE(2, "CRegistry::DeleteKey \"%s\"\n", name);
    return Remove(name, true);
}

int32_t CRegistry::DeleteValue(const char* name) {
    TRACE(2, "CRegistry::DeleteValue \"%s\"\n", name);
    return Remove(name, false);
}
