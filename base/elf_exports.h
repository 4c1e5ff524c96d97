// Which symbols a shared library offers, read from the file: its code is not run, as loading it
// would.
#pragma once

#include <set>
#include <string>
#include <string_view>

struct ElfExports {
    std::string error;            // why it is no library for this machine; empty: it is one
    bool isOtherMachine = false;  // a sound one, of another machine or word size
    std::set<std::string, std::less<>> names;

    [[nodiscard]] bool Has(std::string_view name) const { return names.contains(name); }
};

// A broken file gives an error, never more.
ElfExports ReadElfExports(const char* path);
