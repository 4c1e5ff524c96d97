// The module directory of a test. The switch library takes modules from where only root
// may write, whatever the umask was under which they were built.
#pragma once

#include <filesystem>
#include <string>

inline constexpr const char* kModules = "/tmp/modules";

inline void MakeSafe(const std::filesystem::path& path) {
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(0755));
}

inline void ClearModules() {
    std::filesystem::remove_all(kModules);
    std::filesystem::create_directories(kModules);
    MakeSafe(kModules);
}

// Under its own file name unless another one is given.
inline void AddModule(const std::filesystem::path& path, const std::string& name = "") {
    const auto copy = kModules / (name.empty() ? path.filename() : std::filesystem::path(name));
    std::filesystem::copy(path, copy, std::filesystem::copy_options::overwrite_existing);
    MakeSafe(copy);
}
