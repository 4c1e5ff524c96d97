#include "base/library_search.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/library_file.h"

namespace {

using Places = std::vector<LibraryPlace>;

// The loader's cache, /etc/ld.so.cache: a head, the entries, and the texts that they point to,
// counted from the start of the file.
struct CacheHead {
    char magic[20];
    uint32_t count;
    uint32_t reserved[6];
};
struct CacheEntry {
    int32_t flags;
    uint32_t name;
    uint32_t path;
    uint32_t osVersion;
    uint64_t processor;  // 0: for all
};
static_assert(sizeof(CacheHead) == 48 && sizeof(CacheEntry) == 24);

void AddIfThere(Places& places, const std::string& path, const char* reason) {
    if (access(path.c_str(), F_OK) == 0) places.push_back({path, reason});
}

void LookInDirectory(Places& places, const std::string& directory, const std::string& name,
                     const char* reason) {
    for (const char* const special :
         {"/glibc-hwcaps", "/tls", "/haswell", "/avx512_1", "/x86_64"}) {
        if (access((directory + special).c_str(), F_OK) == 0) places.push_back({"", reason});
    }
    AddIfThere(places, directory + "/" + name, reason);
}

void LookInSearchPath(Places& places, const std::string& name, std::string_view path) {
    constexpr const char* kReason = "LD_LIBRARY_PATH";
    while (!path.empty()) {
        const size_t end = path.find_first_of(":;");
        const std::string directory(path.substr(0, end));
        if (directory.empty() || directory.find('$') != directory.npos || end == path.size() - 1) {
            places.push_back({"", kReason});
        }
        if (!directory.empty()) LookInDirectory(places, directory, name, kReason);
        path = end == path.npos ? std::string_view() : path.substr(end + 1);
    }
}

void LookInCache(Places& places, const std::string& name) {
    constexpr const char* kReason = "the loader's cache";
    constexpr int32_t kX8664 = 0x0303;  // an ELF library of the C library's sixth version, 64 bits
    const BinaryFile file("/etc/ld.so.cache");
    CacheHead head{};
    if (!file.IsOpen()) return;
    const bool isKnown =
        file.Read(0, sizeof head, &head) &&
        std::memcmp(static_cast<const void*>(head.magic), "glibc-ld.so.cache1.1", 20) == 0;
    const auto entries =
        file.ReadTable<CacheEntry>(sizeof head, uint64_t{head.count} * sizeof(CacheEntry));
    const auto text = file.ReadTable<char>(0, file.Size());
    if (!isKnown || !entries || !text) return places.push_back({"", kReason});
    const auto textAt = [&text](uint32_t offset) -> std::string_view {
        if (offset >= text->size()) return {};
        return {text->data() + offset, strnlen(text->data() + offset, text->size() - offset)};
    };
    for (const CacheEntry& entry : *entries) {
        if (entry.flags != kX8664 || textAt(entry.name) != name) continue;
        if (entry.processor != 0) places.push_back({"", kReason});
        AddIfThere(places, std::string(textAt(entry.path)), kReason);
    }
}

}  // namespace

std::vector<LibraryPlace> FindLibrary(const std::string& name, const char* searchPath) {
    Places places;
    if (searchPath != nullptr) LookInSearchPath(places, name, searchPath);
    LookInDirectory(places, KEMD_LIBDIR, name, "kemd's own directory");
    LookInCache(places, name);
    for (const char* const directory : {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu",
                                        "/lib64", "/usr/lib64", "/lib", "/usr/lib"}) {
        LookInDirectory(places, directory, name, "the loader's default directories");
    }
    return places;
}
