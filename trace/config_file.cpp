#include "trace/config_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/text.h"

namespace {

constexpr size_t kNumberLimit = 64;

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::optional<std::string_view> AcceptConfigText(std::string_view file) {
    const size_t close = file.rfind(']');
    if (close == file.npos) return std::nullopt;
    const size_t open = file.rfind('[', close);
    if (open == file.npos) return std::nullopt;
    if (!EqualsIgnoringCase(file.substr(open + 1, close - open - 1), "EndOfFile")) {
        return std::nullopt;
    }
    return file.substr(0, close + 1);
}

std::optional<std::string_view> FindConfigSection(std::string_view text, std::string_view name) {
    size_t open = text.find('[');
    while (open != text.npos) {
        const size_t bracket = text.find_first_of("[]", open + 1);
        if (bracket == text.npos) break;
        if (text[bracket] == '[') {  // never closed: the next one may be a header
            open = bracket;
            continue;
        }
        const size_t next = text.find('[', bracket);
        if (EqualsIgnoringCase(text.substr(open + 1, bracket - open - 1), name)) {
            return text.substr(bracket + 1, next == text.npos ? next : next - bracket - 1);
        }
        open = next;
    }
    return std::nullopt;
}

std::optional<std::string_view> FindConfigValue(std::string_view section, std::string_view key,
                                                size_t limit) {
    const size_t found = section.find(key);
    if (found == section.npos) return std::nullopt;
    const size_t equals = section.find('=', found + key.size());
    if (equals == section.npos) return std::nullopt;
    const std::string_view value = TrimStart(section.substr(equals + 1));
    return value.substr(0, std::min(value.find_first_of("\r\n"), limit));
}

int32_t FindConfigNumber(std::string_view section, std::string_view key, int32_t fallback) {
    const auto value = FindConfigValue(section, key, kNumberLimit);
    if (!value) return fallback;
    std::array<char, kNumberLimit + 1> digits{};
    std::memcpy(digits.data(), value->data(), value->size());
    return static_cast<int32_t>(std::strtoul(digits.data(), nullptr, 0));
}

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
        errno = 0;  // to distinguish an error from the end
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
