#include "services/registry/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <utility>

#include "services/base/cancel_guard.h"
#include "services/base/never_destroyed.h"
#include "services/base/regular_file.h"
#include "services/registry/file_text.h"
#include "services/registry/save.h"
#include "trace/debug.h"

static constinit NeverDestroyed<RegistryStore> g_store;

RegistryStore& TheRegistryStore() {
    return g_store.object;
}

static std::optional<RegistryEntries> LoadRegistryFile(const char* path) {
    if (path == nullptr || *path == '\0') {
        TRACE(1, "CRegistry: ERROR: Empty file path");
        return std::nullopt;
    }
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) {
        TRACE(1, "CRegistry: WARNING: Could not open \"%s\"\n", path);
        return std::nullopt;
    }
    struct stat status {};
    if (fstat(file.Get(), &status) == 0 && status.st_size == 0) {
        TRACE(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path);
        return std::nullopt;
    }
    LineReader lines(file.Get());
    auto entries = ParseRegistry(lines);
    // A file that cannot be read to its end must not become the store.
    if (entries && !lines.HasFailed()) return entries;
    TRACE(1,
          "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this "
          "file\n",
          path);
    return std::nullopt;
}

bool RestoreRegistryFile(const char* path, CRegistryNode& node) {
    auto entries = LoadRegistryFile(path);
    if (!entries) return false;
    const auto replaced = LockedNode(node).Merge(std::move(*entries));
    return true;
}

// The root handles follow in the same step: none ever names a key that is gone.
bool RegistryStore::Restore(const char* path) {
    auto entries = LoadRegistryFile(path);
    if (!entries) return false;
    std::vector<RemovedEntry> replaced;  // freed behind the lock
    LockedNode root(m_root);
    replaced = root.Merge(std::move(*entries));
    for (size_t i = 0; i < m_handles.size(); ++i) {
        const RegistryEntry* entry = root.Find(kRootKeyNames[i]);
        m_handles[i] = entry != nullptr ? entry->Node() : RegistryKey();
    }
    m_isLoaded = true;
    return true;
}

bool RegistryStore::RestoreAny() {
    if (Restore(kRegistryFile)) return true;
    TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n",
          kRegistryFile);
    if (Restore(kRegistryOldFile)) return true;
    TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n",
          kRegistryOldFile);
    if (Restore(kRegistryDefaultFile)) return true;
    TRACE(1, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n",
          kRegistryDefaultFile);
    return false;
}

void RegistryStore::Setup(bool force) {
    if (m_isSetup && !force) return;
    const CancelGuard guard;
    const RecursiveLock lock(m_setupLock);
    if (m_isSetup && !force) return;
    TRACE(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", force ? 1 : 0,
          m_isSetup ? 1 : 0, m_isDirty ? 1 : 0);
    try {
        if (!RestoreAny()) return;
    } catch (const std::exception&) {
        TRACE(2, "CRegistry: SetupTree(): ## ERROR during Setup\n");
    }
    m_isSetup = true;
}

void RegistryStore::EnsureRootKeys() {
    LockedNode root(m_root);
    const RegistryEntry* machine = root.Find(kRootKeyNames[HKEY_LOCAL_MACHINE]);
    if (machine != nullptr && machine->Node()) return;
    TRACE(1, "CRegistry::InitClass() : re-initialize the registry-tree\n");
    for (size_t i = 0; i < m_handles.size(); ++i) {
        const RegistryEntry* entry = root.Find(kRootKeyNames[i]);
        if (entry != nullptr && entry->Node()) continue;
        // The key was deleted while its handle kept it: it begins again, empty.
        if (m_handles[i]) m_handles[i]->Revive();
        (void)root.Put(RegistryEntry(kRootKeyNames[i], m_handles[i]));  // replaces no subkey
    }
}

RegistryKey RegistryStore::RootKey(RegistryRoot root) {
    const LockedNode locked(m_root);
    RegistryKey& handle = m_handles[root];
    if (handle && handle->IsDeleted()) {
        // The key was deleted, and may have been created again since.
        const RegistryEntry* entry = locked.Find(kRootKeyNames[root]);
        if (entry != nullptr && entry->Node()) handle = entry->Node();
    }
    return handle;
}

// Whether the tree holds nothing but the names of root keys.
bool RegistryStore::IsEmpty() {
    const LockedNode root(m_root);
    return std::all_of(
        root.Entries().begin(), root.Entries().end(),
        [](const RegistryEntry& entry) { return entry.IsSubkey() && !entry.Node(); });
}

bool RegistryStore::Save() {
    const CancelGuard guard;
    const RecursiveLock lock(m_setupLock);
    // First of all: what is changed while the tree is written is saved the next time.
    if (m_isDirty.exchange(false)) {
        // A file that could not be read now may be readable again tomorrow.
        const bool hasContent = m_isLoaded || !IsEmpty();
        m_saveError = hasContent && !SaveRegistryFile(m_root) ? errno : 0;
    }
    if (m_saveError != 0) errno = m_saveError;
    return m_saveError == 0;
}
