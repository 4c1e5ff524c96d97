// The store as the registry commands see it: loading, finding keys, excluding other writers,
// saving.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "kemd/registry.h"

// The process's one cursor; the first call loads the store. It is never destroyed, so that nothing
// is saved but by SaveStore.
CRegistry& Cursor();

// Loads the store; complains and returns false when there is none, or it was not read whole.
bool LoadStore();
// Why a registry file was not read whole, from what ParseRegistry and RestoreRegistryFile say.
std::string LoadErrorText(int error);

// The components of a key's path, as CRegistry takes it apart.
using KeyPath = std::vector<std::string_view>;
KeyPath SplitPath(std::string_view path);
bool IsRootKey(std::string_view name);
// From the root of the tree; nothing when there is no such key.
RegistryKey FindKey(const KeyPath& path);

// Holds off other writing commands while it lives.
class WriterLock {
  public:
    // Waits for a while; complains and returns false when that does not help.
    bool Take();

  private:
    UniqueFd m_file;
};

// Writes what was changed; an exit code. Complains when that fails, and says when a daemon runs.
int SaveStore();
