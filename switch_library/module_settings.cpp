#include "switch_library/module_settings.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/file_io.h"
#include "base/file_safety.h"
#include "base/paths.h"
#include "kemd/config.h"

ModuleSettings ReadModuleSettings(const std::string& name, std::string& fault) {
    ModuleSettings settings;
    settings.file = std::string(kModuleSettingsDirectory) + "/" + name + ".ini";
    const char* const file = settings.file.c_str();
    if (!OpenRegularFile(file, O_RDONLY).IsOpen()) {
        if (errno != ENOENT) fault = settings.file + ": " + std::strerror(errno);
        return settings;
    }
    // It decides what runs as root.
    fault = Unsafe(WalkPath(settings.file));
    const std::unique_ptr<KemdConfig, void (*)(KemdConfig*)> config(
        KemdConfigOpen(file, "Module", name.c_str()), KemdConfigClose);
    if (config == nullptr) throw std::bad_alloc();
    int isEnabled = 1;
    if (KemdConfigBool(config.get(), "Enabled", 1, &isEnabled) != 0 && fault.empty()) {
        fault = settings.file + ": Enabled is neither yes nor no";
    }
    settings.isEnabled = isEnabled != 0;
    // One that is wrong is in the trace, and the default holds.
    constexpr int64_t kLeast = 100;
    constexpr int64_t kMost = 3'600'000;
    for (auto [key, timeoutMs] : {std::pair("StartTimeout", &settings.startTimeoutMs),
                                  std::pair("StopTimeout", &settings.stopTimeoutMs)}) {
        (void)KemdConfigTime(config.get(), key, *timeoutMs, kLeast, kMost, timeoutMs);
    }
    return settings;
}
