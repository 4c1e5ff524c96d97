#include "services/registry/store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "base/cancel_guard.h"
#include "base/never_destroyed.h"
#include "base/paths.h"
#include "services/registry/file.h"
#include "trace/debug.h"

static constinit NeverDestroyed<RegistryStore> g_store;

RegistryStore& TheRegistryStore() {
    return g_store.object;
}

// The root handles change in the same step, so that none ever refers to a key that is gone.
void RegistryStore::Take(RegistryEntries entries) {
    std::vector<RemovedEntry> replaced;  // freed after the lock
    LockedNode root(m_root);
    replaced = root.Merge(std::move(entries));
    for (size_t i = 0; i < m_handles.size(); ++i) {
        const RegistryEntry* entry = root.Find(kRootKeyNames[i]);
        m_handles[i] = entry != nullptr ? entry->Node() : RegistryKey();
    }
}

RegistryStore::Outcome RegistryStore::Restore(const char* path) {
    m_file = path;
    ParsedRegistry parsed = LoadRegistryFile(path);
    if (parsed.isNone) return kUnusable;
    if (!parsed.entries) {
        TRACE(1, "CRegistry: ERROR: Cannot read \"%s\": %s; nothing is loaded\n", path,
              std::strerror(parsed.error));
        m_loadError = parsed.error;
        return kFailed;
    }
    if (parsed.error != 0) {
        TRACE(1, "CRegistry: ERROR: No memory for all of \"%s\": the tree will not be saved\n",
              path);
    }
    Take(std::move(*parsed.entries));
    m_loadError = parsed.error;
    return kRestored;
}

RegistryStore::Outcome RegistryStore::RestoreAny() {
    Outcome outcome = Restore(kRegistryFile);
    if (outcome != kUnusable) return outcome;
    TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n",
          kRegistryFile);
    outcome = Restore(kRegistryOldFile);
    if (outcome != kUnusable) return outcome;
    TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n",
          kRegistryOldFile);
    outcome = Restore(kRegistryDefaultFile);
    if (outcome != kUnusable) return outcome;
    TRACE(1, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n",
          kRegistryDefaultFile);
    return outcome;
}

void RegistryStore::Setup(bool force) {
    if (m_isSetup && m_isLoaded && !force) return;
    const CancelGuard guard;
    const RecursiveLock lock(m_setupLock);
    if (m_isSetup && m_isLoaded && !force) return;
    TRACE(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", force ? 1 : 0,
          m_isSetup ? 1 : 0, m_isDirty ? 1 : 0);
    try {
        const Outcome outcome = RestoreAny();
        if (outcome == kUnusable) return;
        m_isLoaded = outcome == kRestored;
        m_isSetup = outcome == kRestored;
    } catch (const std::exception&) {
        TRACE(2, "CRegistry: SetupTree(): ## ERROR during Setup\n");
        m_loadError = ENOMEM;
        m_isLoaded = false;
        m_isSetup = true;
    }
}

void RegistryStore::EnsureRootKeys() {
    LockedNode root(m_root);
    const RegistryEntry* machine = root.Find(kRootKeyNames[HKEY_LOCAL_MACHINE]);
    if (machine != nullptr && machine->Node()) return;
    TRACE(1, "CRegistry::InitClass() : re-initialize the registry-tree\n");
    for (size_t i = 0; i < m_handles.size(); ++i) {
        const RegistryEntry* entry = root.Find(kRootKeyNames[i]);
        if (entry != nullptr && entry->Node()) continue;
        // The key was deleted while its handle kept it: it starts again, empty.
        if (m_handles[i]) m_handles[i]->Revive();
        (void)root.Put(RegistryEntry(kRootKeyNames[i], m_handles[i]));  // replaces no subkey
    }
}

RegistryKey RegistryStore::RootKey(RegistryRoot root) {
    if (root >= m_handles.size()) return {};
    const LockedNode locked(m_root);
    RegistryKey& handle = m_handles[root];
    if (handle && handle->IsDeleted()) {
        // The key was deleted and may have been created again since.
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

// Returns 0 or the error number.
int RegistryStore::Write() {
    if (m_loadError != 0) {
        TRACE(1, "CRegistry: ERROR: Cannot save \"%s\": \"%s\" was not read whole: %s\n",
              kRegistryFile, m_file.load(), std::strerror(m_loadError));
        m_failedFile = m_file.load();
        return m_loadError;
    }
    // An empty tree was never loaded: a file that is missing now may come back.
    const bool hasContent = m_isLoaded || !IsEmpty();
    m_failedFile = hasContent ? SaveRegistryFile(m_root) : nullptr;
    return m_failedFile != nullptr ? errno : 0;
}

int RegistryStore::Import(const char* path) {
    const CancelGuard guard;
    const RecursiveLock lock(m_setupLock);
    if (m_loadError != 0) return m_loadError;
    ParsedRegistry parsed = LoadRegistryFile(path);
    if (parsed.error != 0) return parsed.error;
    MarkDirty();
    Take(std::move(*parsed.entries));
    MarkDirty();
    return 0;
}

bool RegistryStore::Save() {
    const CancelGuard guard;
    const RecursiveLock lock(m_setupLock);
    // First, so that a change made during the save is saved the next time.
    if (m_isDirty.exchange(false)) m_saveError = Write();
    if (m_saveError != 0) errno = m_saveError;
    return m_saveError == 0;
}
