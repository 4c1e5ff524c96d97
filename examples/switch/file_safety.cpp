#include "file_safety.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

std::string UnsafePath(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return path + ": " + std::strerror(errno);
    if (status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) return "";
    std::array<char, 128> found{};
    std::snprintf(found.data(), found.size(), "owner %u, mode %04o; wanted: owner 0, mode %s",
                  status.st_uid, status.st_mode & 07777U,
                  S_ISDIR(status.st_mode) ? "0755" : "0644 or 0755");
    return path + " may be written by others than root: " + found.data();
}

std::string UnsafeModule(const std::string& path) {
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), free);
    if (!resolved) return path + ": " + std::strerror(errno);
    const std::string file = resolved.get();
    const std::string reason = UnsafePath(file);
    return reason.empty() ? UnsafePath(file.substr(0, file.rfind('/') + 1)) : reason;
}
