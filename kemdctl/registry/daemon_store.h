// Changes in the tree of the running daemon, which its modules share and save. Each returns an exit
// code; nothing when no daemon can be asked: the change then belongs into the file.
#pragma once

#include <optional>

#include "services/registry/node.h"

std::optional<int> SetInDaemon(const char* key, const RegistryEntry& value);
// The whole key without `value`.
std::optional<int> DeleteInDaemon(const char* key, const char* value);
// Replaces the root keys that the tree has.
std::optional<int> ImportIntoDaemon(const RegistryKey& tree);
