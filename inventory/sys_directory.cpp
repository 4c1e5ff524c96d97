#include "inventory/sys_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>

#include "base/file_io.h"
#include "base/text.h"
#include "inventory/host_inventory.h"

namespace {

// What a driver answers for an attribute that its device does not have.
bool IsAbsent(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case ENODEV:
        case ENXIO:
        case EINVAL:
        case EOPNOTSUPP:
            return true;
        default:
            return false;
    }
}

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

SysDirectory::SysDirectory(KemdInventory& inventory, std::string path)
    : m_inventory(&inventory),
      m_path(std::move(path)),
      m_fd(open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    const int error = errno;
    if (!m_fd.IsOpen() && !IsAbsent(error)) m_inventory->NoteError(m_path, error);
}

SysDirectory SysDirectory::Below(const char* name) const {
    return SysDirectory(*m_inventory, m_path + "/" + name);
}

void SysDirectory::NoteError(const char* name, int error) const {
    if (!IsAbsent(error)) m_inventory->NoteError(m_path + "/" + name, error);
}

std::string SysDirectory::Bytes(const char* name, size_t limit) const {
    if (!IsThere()) return {};
    const UniqueFd file(openat(m_fd.Get(), name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file.IsOpen()) {
        NoteError(name, errno);
        return {};
    }
    std::string bytes(limit, '\0');
    const ReadResult read = ReadFully(file.Get(), bytes.data(), bytes.size());
    if (read.error != 0) NoteError(name, read.error);
    bytes.resize(read.count);
    return bytes;
}

std::optional<std::string> SysDirectory::Text(const char* name) const {
    constexpr size_t kPage = 4096;
    std::array<char, kPage> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    if (!IsThere()) return std::nullopt;
    const UniqueFd file(openat(m_fd.Get(), name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    const int openError = errno;
    const ReadResult read = file.IsOpen() ? ReadFully(file.Get(), buffer.data(), buffer.size())
                                          : ReadResult{0, openError};
    if (read.error != 0) {
        NoteError(name, read.error);
        return std::nullopt;
    }
    return std::string(Trim(CutAtNul({buffer.data(), read.count})));
}

std::optional<uint64_t> SysDirectory::Number(const char* name) const {
    const std::optional<std::string> text = Text(name);
    if (!text) return std::nullopt;
    const bool isHexadecimal = text->starts_with("0x");
    const char* const end = text->data() + text->size();
    uint64_t number = 0;
    const auto result = std::from_chars(text->data() + (isHexadecimal ? 2 : 0), end, number,
                                        isHexadecimal ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return number;
}

std::string SysDirectory::LinkName(const char* name) const {
    std::array<char, PATH_MAX> target;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    if (!IsThere()) return {};
    const ssize_t length = readlinkat(m_fd.Get(), name, target.data(), target.size());
    if (length < 0) return {};
    const std::string_view path(target.data(), static_cast<size_t>(length));
    return std::string(path.substr(path.rfind('/') + 1));
}

bool SysDirectory::Has(const char* name) const {
    return IsThere() && faccessat(m_fd.Get(), name, F_OK, 0) == 0;
}

std::vector<std::string> SysDirectory::Names() const {
    std::vector<std::string> names;
    if (!IsThere()) return names;
    UniqueFd again(openat(m_fd.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, DirectoryCloser> directory(fdopendir(again.Get()));
    if (directory == nullptr) {
        m_inventory->NoteError(m_path, errno);
        return names;
    }
    (void)again.Release();
    errno = 0;
    while (const dirent* const entry = readdir(directory.get())) {
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") names.emplace_back(name);
        errno = 0;
    }
    const int error = errno;
    if (error != 0) m_inventory->NoteError(m_path, error);
    std::sort(names.begin(), names.end());
    return names;
}

std::string RealPath(const std::string& path) {
    std::array<char, PATH_MAX> real;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    return realpath(path.c_str(), real.data()) == nullptr ? std::string()
                                                          : std::string(real.data());
}
