#include "services/module_settings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/file_io.h"
#include "base/file_safety.h"
#include "base/paths.h"
#include "kemd/config.h"
#include "kemd/services.h"
#include "kemd/trace.h"

namespace {

// What keeps the others safe from this module is not left to a default when it is wrong.
void ReadProtection(const KemdConfig* config, ModuleSettings& settings, std::string& fault) {
    static constexpr std::array<const char*, 3> kRestart = {"never", "on-failure", nullptr};
    constexpr int64_t kLeastMemory = 16 << 20;
    int isEnabled = 1;
    int isIsolated = 0;
    int restart = 1;
    std::array<char, 64> user{};
    const auto refuse = [&](int error, const char* key, const char* allowed) {
        if (error == 0) return;
        settings.wrongKeys.push_back(key);
        if (fault.empty()) fault = settings.file + ": [Module] " + key + " is " + allowed;
    };
    refuse(KemdConfigBool(config, "Enabled", 1, &isEnabled), "Enabled", "neither yes nor no");
    refuse(KemdConfigBool(config, "Isolated", 0, &isIsolated), "Isolated", "neither yes nor no");
    refuse(KemdConfigWord(config, "Restart", 1, kRestart.data(), &restart), "Restart",
           "neither never nor on-failure");
    refuse(KemdConfigText(config, "User", "", user.data(), user.size()), "User", "too long");
    refuse(KemdConfigSize(config, "MemoryLimit", 0, kLeastMemory, int64_t{1} << 40,
                          &settings.memoryLimit),
           "MemoryLimit", "no size from 16M to 1024G");
    settings.isEnabled = isEnabled != 0;
    settings.isIsolated = isIsolated != 0;
    settings.isRestarted = restart != 0;
    settings.user = user.data();
    const bool needsProcess = !settings.user.empty() || settings.memoryLimit != 0;
    if (needsProcess && !settings.isIsolated && fault.empty()) {
        fault = settings.file + ": User and MemoryLimit need Isolated = yes";
    }
}

// A key that is misspelt would be missed: the module would run less protected than was meant.
void ReportUnknownKeys(const ModuleSettings& settings, const char* module) {
    static constexpr std::array<std::string_view, 7> kKeys = {
        "Enabled", "StartTimeout", "StopTimeout", "Restart", "Isolated", "User", "MemoryLimit"};
    std::array<char, 4096> names{};
    (void)KemdProfileRead(settings.file.c_str(), "Module", nullptr, nullptr, names.data(),
                          names.size());
    for (const char* name = names.data(); *name != '\0'; name += std::strlen(name) + 1) {
        if (std::find(kKeys.begin(), kKeys.end(), name) != kKeys.end()) continue;
        KemdMessage(module, "%s: [Module] %s is no key that kemd knows", settings.file.c_str(),
                    name);
    }
}

}  // namespace

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
    ReadProtection(config.get(), settings, fault);
    ReportUnknownKeys(settings, name.c_str());
    // One that is wrong is in the trace, and the default holds.
    constexpr int64_t kLeast = 100;
    constexpr int64_t kMost = 3'600'000;
    for (auto [key, timeoutMs] : {std::pair("StartTimeout", &settings.startTimeoutMs),
                                  std::pair("StopTimeout", &settings.stopTimeoutMs)}) {
        const int error = KemdConfigTime(config.get(), key, *timeoutMs, kLeast, kMost, timeoutMs);
        if (error != 0) settings.wrongKeys.push_back(key);
    }
    return settings;
}
