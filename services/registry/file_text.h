// The text of a registry file and the tree: parsing and writing, without knowing where the text is
// kept. Neither recurses, however deep a tree is.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "services/base/line_reader.h"
#include "services/registry/node.h"

// Reads the lines up to the first empty one at the top level. The entries are sorted; of those with
// the same name the last one stays. Nothing when no line was a value or a subkey. A value for which
// memory does not suffice is skipped; without memory for a subkey std::bad_alloc.
std::optional<RegistryEntries> ParseRegistry(LineReader& lines);
// The same into a key: entries replace those of the same name, subkeys with all below them, and the
// others stay. False when there was nothing.
bool ParseRegistry(LineReader& lines, CRegistryNode& target);

// Gives the text to `write` in pieces; false when that returned false. The lock of a key is held
// while its own entries are copied, never while `write` runs.
bool WriteRegistry(CRegistryNode& root, const std::function<bool(std::string_view)>& write);
