#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "base/crash_file.h"
#include "base/elf_exports.h"
#include "base/library_search.h"
#include "base/paths.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/check/path_findings.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kLibrary = "libswitch.so";

void CheckExports(Findings& findings, const std::string& shown, const ElfExports& exports) {
    if (!exports.Has("SW_QueryInterface")) {
        findings.Error(shown + " does not export SW_QueryInterface: kemd does not start with it",
                       "install the suite's switch library");
    }
    for (const char* const name : {"SW_AddRef", "SW_Release"}) {
        if (exports.Has(name)) continue;
        findings.Warning(shown + " does not export " + name, "install the suite's switch library");
    }
}

// Whoever may write into one of these directories, or create a missing one, can place a library
// there.
void CheckSearchPath(Findings& findings, std::string_view path) {
    while (!path.empty()) {
        const size_t end = path.find_first_of(":;");
        const std::string directory(path.substr(0, end));
        if (!directory.starts_with('/')) {
            findings.Error("LD_LIBRARY_PATH names \"" + Printable(directory) +
                               "\", which is wherever kemd is started",
                           "give absolute paths, and no empty one");
        } else {
            (void)CheckInRootsHands(findings, directory, true);
        }
        // A ":" at the end is an empty path as well.
        path = end == path.npos ? "" : end + 1 == path.size() ? "." : path.substr(end + 1);
    }
}

// The names of the modules; nothing, with errno, when the directory cannot be read.
std::optional<std::vector<std::string>> ListModules(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), closedir);
    if (!entries) return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(entries.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() > 3 && name.ends_with(".so")) names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void CheckModule(Findings& findings, const std::string& path) {
    const std::string shown = Printable(path);
    const ElfExports exports = ReadElfExports(path.c_str());
    if (!exports.error.empty()) {
        findings.Error(shown + " is not a module: " + exports.error, "replace or remove it");
    } else if (!exports.Has("kemdModule")) {
        findings.Warning(shown + " does not export kemdModule: it is left out",
                         "replace or remove it");
    } else if (CheckInRootsHands(findings, path)) {
        findings.Ok(shown + " is a module and safe");
    }
}

}  // namespace

void CheckSwitchLibrary(Findings& findings, const DaemonFacts& daemon) {
    const char* const searchPath = daemon.environment.Find("LD_LIBRARY_PATH");
    if (searchPath != nullptr) CheckSearchPath(findings, searchPath);
    for (const LibraryPlace& place : FindLibrary(kLibrary, searchPath)) {
        if (place.path.empty()) continue;
        const std::string shown = Printable(place.path);
        const ElfExports exports = ReadElfExports(place.path.c_str());
        if (exports.isOtherMachine) {
            findings.Warning(shown + " is skipped: " + exports.error, "remove it");
            continue;
        }
        if (!exports.error.empty()) {
            return findings.Error(shown + ", found by " + place.reason +
                                      ", is not a switch library: " + exports.error,
                                  "replace or remove it");
        }
        CheckExports(findings, shown, exports);
        if (CheckInRootsHands(findings, place.path)) {
            findings.Ok(shown + ", found by " + place.reason + ", is a shared library and safe");
        }
        return;
    }
    findings.Error(std::string(kLibrary) + " is not found: kemd does not start without it",
                   "install the package kemd-switch-reference or the suite's own, or run ldconfig");
}

void CheckModules(Findings& findings, const DaemonFacts& daemon) {
    const std::string directory = ModuleDirectory(daemon.environment);
    const auto names = ListModules(directory);
    const std::string shown = Printable(directory);
    if (!names && errno != ENOENT && errno != ENOTDIR) return findings.CannotLook(directory, errno);
    if (!names) {
        (void)CheckInRootsHands(findings, directory, true);
        return findings.Warning("there is no module directory " + shown,
                                InstallModuleAdvice(directory));
    }
    CheckDirectory(findings, directory);
    if (names->empty()) findings.Ok(shown + " holds no module", InstallModuleAdvice(directory));
    const auto crashes = ReadCrashes();
    if (!crashes) findings.CannotLook(kCrashFile, errno);
    for (const std::string& name : *names) {
        std::string path = directory;
        CheckModule(findings, path.append("/").append(name));
        const std::string module = name.substr(0, name.size() - 3);
        if (!crashes || !IsHeldBack(*crashes, module, true)) continue;
        findings.Warning(Printable(path) +
                             " crashed three times within ten minutes: kemd does not load it into "
                             "its own process any more",
                         "kemdctl trace --last-run; to bring it back: kemdctl modules enable " +
                             ShellQuoted(module));
    }
}
