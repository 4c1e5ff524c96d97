// Where the dynamic loader finds a library, without loading it.
#pragma once

#include <string>
#include <vector>

struct LibraryPlace {
    std::string path;    // empty: what the loader finds here cannot be told
    std::string reason;  // by what it is looked for there, in words
};
// Files of that name in the loader's order, of which it takes the first that suits the machine.
// Not told: where subdirectories for certain processors, such as glibc-hwcaps, may hold one that
// the loader prefers, and which directory an empty or variable part of the search path is.
// `searchPath`: LD_LIBRARY_PATH of the process that loads it, or null.
std::vector<LibraryPlace> FindLibrary(const std::string& name, const char* searchPath);
