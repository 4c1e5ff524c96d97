// The process's one registry tree: its root, its root keys, and when it is loaded and saved.
//
// Any thread may call. Constant-initialised and never destroyed. The set-up lock is taken before
// the locks of keys.
#pragma once

#include <array>
#include <atomic>

#include "base/recursive_mutex.h"
#include "services/registry/node.h"

// In the order of RegistryRoot.
inline constexpr std::array<const char*, 5> kRootKeyNames = {
    "HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_USERS", "HKEY_CLASSES_ROOT",
    "HKEY_CURRENT_CONFIG"};

class RegistryStore {
  public:
    constexpr RegistryStore() = default;

    // Loads the tree from the newest generation, unless it is loaded. Takes an older one only when
    // the newer ones are missing or hold no registry. After a read error nothing is loaded, and
    // nothing is saved until a file has been read whole.
    void Setup(bool force);
    // Whether a file was loaded.
    [[nodiscard]] bool IsLoaded() const { return m_isLoaded; }
    // 0, or why File was not read whole; then the tree is not saved.
    [[nodiscard]] int LoadError() const { return m_loadError; }
    // The file that was tried last.
    [[nodiscard]] const char* File() const { return m_file; }
    // Enters the root keys again when HKEY_LOCAL_MACHINE is missing.
    void EnsureRootKeys();
    // Call before a change, even if that fails later, and again after it: a save in between has not
    // seen the change.
    void MarkDirty() {
        if (!m_isReadOnly) m_isDirty = true;
    }
    // From now on every change fails: the tree is a copy that another process owns. Before the
    // first thread.
    void SetReadOnly() { m_isReadOnly = true; }
    [[nodiscard]] bool IsReadOnly() const { return m_isReadOnly; }
    [[nodiscard]] bool IsDirty() const { return m_isDirty; }
    // See KemdRegistryImport.
    int Import(const char* path);
    // See CRegistry::SaveTree.
    bool Save();
    // The file at which the last save failed.
    [[nodiscard]] const char* FailedFile() const { return m_failedFile; }

    [[nodiscard]] RegistryKey Root() { return RegistryKey(&m_root); }
    // The node that the handle of a root key refers to; may be null.
    [[nodiscard]] RegistryKey RootKey(RegistryRoot root);

  private:
    enum Outcome { kRestored, kUnusable, kFailed };

    Outcome RestoreAny();
    Outcome Restore(const char* path);
    void Take(RegistryEntries entries);
    int Write();
    bool IsEmpty();

    RecursiveMutex m_setupLock;
    std::atomic<bool> m_isSetup{false};
    std::atomic<bool> m_isLoaded{false};
    std::atomic<bool> m_isDirty{false};
    bool m_isReadOnly = false;
    int m_saveError = 0;              // of the last save; guarded by the set-up lock
    std::atomic<int> m_loadError{0};  // written with the set-up lock
    std::atomic<const char*> m_file{nullptr};
    std::atomic<const char*> m_failedFile{nullptr};
    CRegistryNode m_root{1};  // this object's reference is never released
    // Guarded by the lock of m_root.
    std::array<RegistryKey, kRootKeyNames.size()> m_handles;
};

RegistryStore& TheRegistryStore();
