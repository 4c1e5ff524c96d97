#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/check/path_findings.h"
#include "kemdctl/registry/file_check.h"
#include "kemdctl/ui/text.h"
#include "services/registry/file.h"

namespace {

// A file that may not be looked at counts as there: reading it reports why.
bool IsThere(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

// `repair`: what to do about a file with findings.
void CheckFile(Findings& findings, const char* path, const std::string& repair) {
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    size_t count = 0;
    std::string first;
    const bool isRead =
        file.IsOpen() && CheckRegistry(file.Get(), true, [&](size_t line, const std::string& what) {
            if (count++ == 0) first = "line " + std::to_string(line) + ": " + what;
        });
    const int error = errno;
    if (!isRead && (error == EACCES || error == EPERM)) return findings.CannotLook(path, error);
    const std::string shown = path;
    if (!isRead) {
        const std::string again = "check again; if it still cannot be read: ";
        findings.Error(shown + " cannot be read: " +
                           (error == EINVAL ? "not a regular file" : std::strerror(error)),
                       (IsNoRegistryFile(error) ? "" : again) + repair);
    } else if (count > 0) {
        findings.Error(shown + " has " + Counted(count, "finding") + " (" + first + ")",
                       "kemdctl registry check " + shown + "; " + repair);
    } else if (CheckInRootsHands(findings, shown)) {
        findings.Ok(shown + " is whole");
    }
}

}  // namespace

void CheckRegistryFiles(Findings& findings, const DaemonFacts& /*daemon*/) {
    const bool hasDefault = IsThere(kRegistryDefaultFile);
    if (IsThere(kRegistryFile)) {
        CheckFile(findings, kRegistryFile, "kemdctl registry restore");
    } else if (IsThere(kRegistryOldFile) || hasDefault) {
        findings.Ok(std::string(kRegistryFile) +
                    " is not there: an older one or the default is "
                    "used until a module saves");
    } else {
        findings.Error(
            std::string(kRegistryFile) + " is not there, nor an older one, nor a default",
            std::string("install ") + kRegistryDefaultFile + " from the package again");
    }
    if (hasDefault) {
        CheckFile(findings, kRegistryDefaultFile, "install it from the package again");
    } else {
        findings.Warning(std::string(kRegistryDefaultFile) +
                             " is missing: nothing is left when the "
                             "registry breaks",
                         "install it from the package again");
    }
}
