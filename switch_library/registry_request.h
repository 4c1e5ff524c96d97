// Changes of the registry in the daemon's own tree, which modules share: a change in the file
// beside a running daemon would be lost when one of them saves.
#pragma once

#include <string>
#include <vector>

#include "base/json.h"

struct RegistryChange {
    enum Kind { kSet, kDeleteValue, kDeleteKey, kMake, kClear };  // kClear: all below the key
    Kind kind = kSet;
    std::string key;
    std::string value;
    uint32_t type = 0;
    std::string data;
};

// Both return what went wrong, or nothing.
std::string ReadRegistryChanges(const JsonValue& list, std::vector<RegistryChange>& changes);
// Makes them one after the other up to one that cannot be made, and saves. `absent`: what was to be
// deleted and is not there; that ends it, too. Any thread.
std::string ApplyRegistryChanges(const std::vector<RegistryChange>& changes, bool save,
                                 std::string& absent);
