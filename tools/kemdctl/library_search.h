// Where the dynamic loader finds a library, without loading it.
#pragma once

#include <string>
#include <vector>

struct LibraryPlace {
    std::string path;
    std::string reason;  // by what it is looked for there, in words
};
// Files of that name in the loader's order, of which it takes the first that suits the machine. Not
// looked for in subdirectories for certain processors, such as glibc-hwcaps, that the loader
// prefers. `searchPath`: LD_LIBRARY_PATH of who loads it, or null.
std::vector<LibraryPlace> FindLibrary(const std::string& name, const char* searchPath);
