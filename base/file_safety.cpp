#include "base/file_safety.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace {

constexpr int kLinkLimit = 40;

class Walk {
  public:
    explicit Walk(const std::string& path) : m_rest(path) {}

    PathReport Run(bool mayBeShared);

  private:
    std::string TakeName();
    [[nodiscard]] std::string PathOf(const std::string& name) const;
    int Enter(const std::string& path);
    int Follow(const std::string& link);

    PathReport m_report;
    std::string m_next;       // where the walk goes, or could not go
    std::string m_rest;       // still to be walked from there
    bool m_isShared = false;  // the walk stands in a directory like /tmp
    int m_links = 0;
};

std::string Walk::TakeName() {
    m_rest.erase(0, m_rest.find_first_not_of('/'));
    std::string name = m_rest.substr(0, m_rest.find('/'));
    m_rest.erase(0, name.size());
    return name;
}

std::string Walk::PathOf(const std::string& name) const {
    const std::string& directory = m_report.resolved;
    if (name == "..") return directory.substr(0, std::max<size_t>(directory.rfind('/'), 1));
    return (directory == "/" ? "/" : directory + "/") + name;
}

// Goes one name further: to a file, a directory, or where a link leads.
int Walk::Enter(const std::string& path) {
    struct stat status {};
    m_next = path;
    if (lstat(path.c_str(), &status) != 0) return errno;
    const bool isLink = S_ISLNK(status.st_mode);
    const bool isOpen = !isLink && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    const bool isSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if (status.st_uid != 0 || (isOpen && !isSticky)) m_report.faults.push_back({path, status});
    if (isLink) return Follow(path);
    m_isShared = isOpen && isSticky && status.st_uid == 0;
    m_report.resolved = path;
    m_report.status = status;
    return 0;
}

int Walk::Follow(const std::string& link) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    if (length < 0) return errno;
    if (++m_links > kLinkLimit) return ELOOP;
    m_rest.insert(0, std::string(target.data(), static_cast<size_t>(length)));
    return m_rest.starts_with('/') ? Enter("/") : 0;
}

PathReport Walk::Run(bool mayBeShared) {
    m_report.error = Enter("/");
    while (m_report.error == 0) {
        const std::string name = TakeName();
        if (name.empty()) break;
        if (name == ".") continue;
        m_report.error = Enter(PathOf(name));
    }
    // Any user may make the name that is missing, or any other at the end.
    const bool mayBeAdded = m_report.error == ENOENT || (m_report.error == 0 && !mayBeShared);
    if (m_isShared && mayBeAdded) m_report.faults.push_back({m_report.resolved, m_report.status});
    if (m_report.error != 0) m_report.resolved = m_next + m_rest;
    return m_report;
}

}  // namespace

PathReport WalkPath(const std::string& path, bool mayBeShared) {
    if (path.starts_with('/')) return Walk(path).Run(mayBeShared);
    std::error_code error;
    const std::string directory = std::filesystem::current_path(error);
    return Walk(directory + "/" + path).Run(mayBeShared);
}

std::string Unsafe(const PathReport& report) {
    if (report.error != 0) return report.resolved + ": " + std::strerror(report.error);
    if (report.faults.empty()) return "";
    const auto& [path, status] = report.faults.back();
    const bool isLink = S_ISLNK(status.st_mode);
    const char* const mode = isLink ? "0777" : S_ISDIR(status.st_mode) ? "0755" : "0644 or 0755";
    std::array<char, 128> found{};
    std::snprintf(found.data(), found.size(), "owner %u, mode %04o; wanted: owner 0, mode %s",
                  status.st_uid, status.st_mode & 07777U, mode);
    return path + " may be written by others than root: " + found.data();
}
