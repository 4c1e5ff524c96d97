#include "services/registry/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
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

bool RestoreRegistryFile(const char* path, CRegistryNode& node) {
    if (path == nullptr || *path == '\0') {
        TRACE(1, "CRegistry: ERROR: Empty file path");
        return false;
    }
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) {
        TRACE(1, "CRegistry: WARNING: Could not open \"%s\"\n", path);
        return false;
    }
    struct stat status {};
    if (fstat(file.Get(), &status) == 0 && status.st_size == 0) {
        TRACE(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path);
        return false;
    }
    LineReader lines(file.Get());
    // A file that cannot be read to its end must not become the store.
    if (ParseRegistry(lines, node) && !lines.HasFailed()) return true;
    TRACE(1,
          "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this "
          "file\n",
          path);
    return false;
}

bool RegistryStore::RestoreAny() {
    if (RestoreRegistryFile(kRegistryFile, m_root)) return true;
    TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n",
          kRegistryFile);
    if (RestoreRegistryFile(kRegistryOldFile, m_root)) return true;
    TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n",
          kRegistryOldFile);
    if (RestoreRegistryFile(kRegistryDefaultFile, m_root)) return true;
    TRACE(1, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n",
          kRegistryDefaultFile);
    return false;
}

void RegistryStore::PointHandles() {
    const LockedNode root(m_root);
    for (size_t i = 0; i < m_handles.size(); ++i) {
        const RegistryEntry* entry = root.Find(kRootKeyNames[i]);
        m_handles[i] = entry != nullptr ? entry->Node() : RegistryKey();
    }
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
        PointHandles();
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
        RegistryEntry replaced;  // has no node
        root.Put(RegistryEntry(kRootKeyNames[i], m_handles[i]), replaced);
    }
}

RegistryKey RegistryStore::RootKey(RegistryRoot root) {
    const LockedNode locked(m_root);
    return root < m_handles.size() ? m_handles[root] : RegistryKey();
}

// Whether the tree holds nothing but the names of root keys.
bool RegistryStore::IsEmpty() {
    const LockedNode root(m_root);
    return std::all_of(
        root.Entries().begin(), root.Entries().end(),
        [](const RegistryEntry& entry) { return entry.IsSubkey() && !entry.Node(); });
}

bool RegistryStore::Save() {
    if (!m_isDirty) return true;
    const CancelGuard guard;
    const RecursiveLock lock(m_setupLock);
    // First of all: what is changed while the tree is written is saved the next time.
    if (!m_isDirty.exchange(false)) return true;
    // A file that could not be read now may be readable again tomorrow.
    if (!m_isSetup && IsEmpty()) return true;
    return SaveRegistryFile(m_root);
}
