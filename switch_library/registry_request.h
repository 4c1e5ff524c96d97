// Changes of the registry in the daemon's own tree, which modules share: a change in the file
// beside a running daemon would be lost when one of them saves.
#pragma once

#include <string>

#include "base/json.h"

struct RegistryChange {
    enum Kind { kNone, kSet, kDeleteValue, kDeleteKey, kImport };
    Kind kind = kNone;
    std::string key;
    std::string value;
    uint32_t type = 0;
    std::string data;
    std::string file;  // of kImport
};

// Both return what went wrong, or nothing.
std::string ReadRegistryChange(std::string_view kind, const JsonValue& json,
                               RegistryChange& change);
// Makes and saves it. `absent`: what was to be deleted and is not there. Any thread.
std::string ChangeRegistry(const RegistryChange& change, std::string& absent);
