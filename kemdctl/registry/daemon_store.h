// Changes in the tree of the running daemon, which its modules share and save. Each returns an exit
// code; nothing when no daemon can be asked: the change then belongs into the file.
#pragma once

#include <optional>

#include "services/registry/node.h"

std::optional<int> SetInDaemon(const char* key, const RegistryEntry& value);
// The whole key without `value`.
std::optional<int> DeleteInDaemon(const char* key, const char* value);
// Replaces the root keys that the open file has, all or none. The daemon sees other directories
// than this process, so it reads a copy beside the store.
std::optional<int> ImportIntoDaemon(int file);
