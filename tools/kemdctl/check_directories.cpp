#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "tools/kemdctl/check_parts.h"
#include "tools/kemdctl/file_safety.h"
#include "tools/kemdctl/text.h"
#include "trace/config_file.h"

namespace {

constexpr std::string_view kPackagedLogDirectory = "/var/log/orvmon";

void CheckLogDirectory(Findings& findings, const std::string& directory) {
    if (directory.empty()) return;  // told with the configuration
    if (!directory.starts_with('/')) {
        return findings.Warning("the log directory \"" + Printable(directory) +
                                    "\" is no absolute path: it depends on where kemd is started",
                                "give one that begins with /");
    }
    const bool isPackaged = directory == kPackagedLogDirectory;
    CheckDirectory(findings, directory,
                   isPackaged ? kMakeDirectories : "install -d -m 755 " + Printable(directory));
}

}  // namespace

void CheckDirectories(Findings& findings, const DaemonEnvironment& environment) {
    CheckLogDirectory(findings, TraceSettings(environment).InForce().logDirectory.Get());
    CheckDirectory(findings, "/etc/orvmon", kMakeDirectories);
    struct stat status {};
    if (stat(kTraceConfigDirectory, &status) == 0 && S_ISDIR(status.st_mode)) {
        CheckDirectory(findings, kTraceConfigDirectory, kMakeDirectories);
    }
    // Without it a start fails as if another instance ran.
    CheckDirectory(findings, "/var/lock", kMakeDirectories, true);
    CheckDirectory(findings, "/var/run", "install -d -m 755 /run && ln -sfn /run /var/run");
}
