#include "trace/config_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "base/file_io.h"
#include "base/paths.h"
#include "trace/config_text.h"

std::optional<int64_t> ModificationTime(const char* path) {
    struct stat status {};
    if (stat(path, &status) != 0) return std::nullopt;
    constexpr int64_t kSecond = 1'000'000'000;
    constexpr int64_t kLast = INT64_MAX / kSecond - 1;  // a file may claim any year
    const int64_t seconds = std::clamp<int64_t>(status.st_mtim.tv_sec, -kLast, kLast);
    return seconds * kSecond + status.st_mtim.tv_nsec;
}

std::optional<std::string> ReadConfigFile(const char* path) try {
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return std::nullopt;
    std::string text(static_cast<size_t>(status.st_size), '\0');
    if (ReadFully(file.Get(), text.data(), text.size()).count < text.size()) return std::nullopt;
    const auto accepted = AcceptConfigText(text);
    if (!accepted) return std::nullopt;
    text.resize(accepted->size());
    return text;
} catch (const std::exception&) {
    return std::nullopt;
}

std::optional<std::vector<std::string>> ListConfigFiles() try {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(kTraceConfigDirectory), closedir);
    if (!directory) return std::nullopt;
    std::vector<std::string> names;
    for (;;) {
        errno = 0;  // tells an error from the end
        const dirent* const entry = readdir(directory.get());
        if (entry == nullptr) break;
        if (std::strstr(entry->d_name, ".ini") != nullptr) names.emplace_back(entry->d_name);
    }
    if (errno != 0) return std::nullopt;
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::strcoll(a.c_str(), b.c_str()) < 0;
    });
    return names;
} catch (const std::bad_alloc&) {
    return std::nullopt;
}
