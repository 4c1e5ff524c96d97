// Where the dynamic loader finds a library, without loading it.
#pragma once

#include <string>
#include <vector>

struct LibraryPlace {
    std::string path;    // empty: what the loader finds here is not known
    std::string reason;  // why the loader looks there, for a message
};
// Files of that name in the loader's order, of which it takes the first that suits the machine.
// Not known: a directory with subdirectories for certain processors, such as glibc-hwcaps, which
// may hold one that the loader prefers, and an empty or variable part of the search path.
// `searchPath`: LD_LIBRARY_PATH of the process that loads it, or null.
std::vector<LibraryPlace> FindLibrary(const std::string& name, const char* searchPath);
