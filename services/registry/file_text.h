// The text of a registry file and the tree: parsing and writing, without knowing where the text is
// kept. Neither recurses, however deep a tree is.
#pragma once

#include <functional>
#include <string_view>

#include "services/base/line_reader.h"
#include "services/registry/node.h"

// Reads the lines into the key, up to its first empty line. Entries replace those of the same name,
// subkeys with all below them; the others stay. False when nothing was a value or a subkey. A value
// for which memory does not suffice is skipped; without memory for a subkey std::bad_alloc.
bool ParseRegistry(LineReader& lines, CRegistryNode& target);

// Gives the text to `write` in pieces; false when that returned false. The lock of a key is held
// while its own entries are copied, never while `write` runs.
bool WriteRegistry(CRegistryNode& root, const std::function<bool(std::string_view)>& write);
