#include "tools/kemdctl/library_search.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <string_view>

namespace {

using Places = std::vector<LibraryPlace>;

void AddIfThere(Places& places, const std::string& path, const char* reason) {
    if (access(path.c_str(), F_OK) == 0) places.push_back({path, reason});
}

void LookInSearchPath(Places& places, const std::string& name, std::string_view path) {
    while (!path.empty()) {
        const size_t end = path.find_first_of(":;");
        std::string file(path.substr(0, end));
        if (!file.empty()) AddIfThere(places, file.append("/").append(name), "LD_LIBRARY_PATH");
        path = end == path.npos ? std::string_view() : path.substr(end + 1);
    }
}

// Lines "<tab>libswitch.so (libc6,x86-64) => /usr/lib/libswitch.so".
void LookInCache(Places& places, const std::string& name) {
    FILE* const cache = popen("/sbin/ldconfig -p 2>/dev/null", "re");
    if (cache == nullptr) return;
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), cache) != nullptr) {
        const std::string_view line = buffer.data();
        const size_t arrow = line.find(" => ");
        if (!line.starts_with("\t" + name + " (") || arrow == line.npos) continue;
        const std::string_view path = line.substr(arrow + 4);
        AddIfThere(places, std::string(path.substr(0, path.find('\n'))), "the loader's cache");
    }
    (void)pclose(cache);
}

}  // namespace

std::vector<LibraryPlace> FindLibrary(const std::string& name, const char* searchPath) {
    Places places;
    if (searchPath != nullptr) LookInSearchPath(places, name, searchPath);
    AddIfThere(places, std::string(KEMD_LIBDIR) + "/" + name, "kemd's own directory");
    LookInCache(places, name);
    for (const char* const directory : {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu",
                                        "/lib64", "/usr/lib64", "/lib", "/usr/lib"}) {
        AddIfThere(places, std::string(directory) + "/" + name, "the loader's default directories");
    }
    return places;
}
