// The process's one registry tree: its root, the root keys and the files that hold it.
//
// Any thread may call. Constant-initialised and never destroyed. Locks: the set-up lock, then those
// of keys.
#pragma once

#include <array>
#include <atomic>

#include "services/base/recursive_mutex.h"
#include "services/registry/node.h"

inline constexpr const char* kRegistryFile = "/etc/orvmon/registry";
inline constexpr const char* kRegistryOldFile = "/etc/orvmon/registry.old";
inline constexpr const char* kRegistryDefaultFile = "/etc/orvmon/registry.default";

// In the order of RegistryRoot.
inline constexpr std::array<const char*, 5> kRootKeyNames = {
    "HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_USERS", "HKEY_CLASSES_ROOT",
    "HKEY_CURRENT_CONFIG"};

class RegistryStore {
  public:
    constexpr RegistryStore() = default;

    // Loads the tree from the first file that can be restored, unless that was done before.
    void Setup(bool force);
    // Whether a file was restored.
    [[nodiscard]] bool IsLoaded() const { return m_isLoaded; }
    // Enters the root keys again when HKEY_LOCAL_MACHINE is missing.
    void EnsureRootKeys();
    // Before a change, whether or not it succeeds, and again behind it: a save in between has not
    // seen it.
    void MarkDirty() { m_isDirty = true; }
    [[nodiscard]] bool IsDirty() const { return m_isDirty; }
    // See CRegistry::SaveTree.
    bool Save();

    [[nodiscard]] RegistryKey Root() { return RegistryKey(&m_root); }
    // The node that the handle of a root key holds, which may be none.
    [[nodiscard]] RegistryKey RootKey(RegistryRoot root);

  private:
    bool RestoreAny();
    bool Restore(const char* path);
    bool IsEmpty();

    RecursiveMutex m_setupLock;
    std::atomic<bool> m_isSetup{false};
    std::atomic<bool> m_isLoaded{false};
    std::atomic<bool> m_isDirty{false};
    int m_saveError = 0;      // of the last save; guarded by the set-up lock
    CRegistryNode m_root{1};  // this object's reference, which never ends
    // Guarded by the lock of m_root.
    std::array<RegistryKey, kRootKeyNames.size()> m_handles;
};

RegistryStore& TheRegistryStore();

// Parses one file into the key. Traces why it fails.
bool RestoreRegistryFile(const char* path, CRegistryNode& node);
