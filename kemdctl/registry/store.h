// The store as the registry commands see it: loading, finding keys, excluding other writers,
// saving.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "kemd/registry.h"

// The process's one cursor; the first call loads the store. It is never destroyed, so that only
// SaveStore saves.
CRegistry& Cursor();

// Loads the store; complains and returns false when there is none, or it was not read whole.
bool LoadStore();
// Why a registry file was not read whole, from the result of ParseRegistry or RestoreRegistryFile.
std::string LoadErrorText(int error);

// The components of a key's path, as CRegistry splits it.
using KeyPath = std::vector<std::string_view>;
KeyPath SplitPath(std::string_view path);
bool IsRootKey(std::string_view name);
// From the root of the tree; null when there is no such key.
RegistryKey FindKey(const KeyPath& path);

// Keeps other commands from writing while it lives.
class WriterLock {
  public:
    // Waits up to ten seconds; complains and returns false when the lock stays taken.
    bool Take();

  private:
    UniqueFd m_file;
};

// Writes the changes; returns an exit code. Complains when that fails, and notes a running daemon.
int SaveStore();
