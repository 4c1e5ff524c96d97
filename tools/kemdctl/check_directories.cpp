#include <sys/stat.h>

#include "tools/kemdctl/check_parts.h"
#include "tools/kemdctl/file_safety.h"
#include "tools/kemdctl/text.h"
#include "trace/config_file.h"

namespace {

void CheckLogDirectory(Findings& findings, const std::string& directory) {
    if (directory.empty()) return;  // told with the configuration
    if (!directory.starts_with('/')) {
        return findings.Warning("the log directory \"" + Printable(directory) +
                                    "\" is no absolute path: it depends on where kemd is started",
                                "give one that begins with /");
    }
    CheckDirectory(findings, directory);
}

}  // namespace

void CheckDirectories(Findings& findings, const DaemonEnvironment& environment) {
    CheckLogDirectory(findings, TraceSettings(environment).InForce().logDirectory.Get());
    CheckDirectory(findings, "/etc/orvmon");
    struct stat status {};
    if (stat(kTraceConfigDirectory, &status) == 0 && S_ISDIR(status.st_mode)) {
        CheckDirectory(findings, kTraceConfigDirectory);
    } else {
        (void)CheckInRootsHands(findings, kTraceConfigDirectory, true);
    }
    // Without it a start fails as if another instance ran.
    CheckDirectory(findings, "/var/lock", true);
    CheckDirectory(findings, "/var/run");
}
