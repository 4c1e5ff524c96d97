#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>

#include "base/paths.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/check/path_findings.h"
#include "kemdctl/ui/text.h"
#include "services/registry/store.h"
#include "trace/config_file.h"

namespace {

// What is to be written into a directory.
struct Demand {
    const char* purpose;  // "kemd cannot <purpose>"
    uint64_t needed;      // bytes, at most
    uint64_t freed;       // bytes of old files that are truncated first
    const char* action;   // follows "free space there" and "mount it writable"
};

// Whether the file system of a directory has room for what is to be written. Blocks that are
// reserved for root do not count.
void CheckRoom(Findings& findings, const std::string& directory, const Demand& demand) {
    struct statvfs system {};
    if (statvfs(directory.c_str(), &system) != 0) return;  // reported with the directory
    const std::string shown = Printable(directory);
    if ((system.f_flag & ST_RDONLY) != 0) {
        return findings.Error(
            shown + " is on a read-only file system: kemd cannot " + demand.purpose,
            std::string("mount it writable") + demand.action);
    }
    if (system.f_blocks == 0) return;  // a file system without sizes
    const uint64_t room = uint64_t{system.f_bavail} * system.f_frsize + demand.freed;
    const bool isFull = room == 0 || (system.f_files != 0 && system.f_favail == 0);
    if (demand.needed <= room && !isFull) return;
    findings.Error(shown + " is on a file system " +
                       (isFull ? "that is full" : "with room for " + SizeText(room)) +
                       ": kemd may fail to " + demand.purpose + ", which takes up to " +
                       SizeText(demand.needed),
                   std::string("free space there") + demand.action);
}

// Bytes on the directory's own disk.
uint64_t SpaceTaken(const std::string& directory, const char* name) {
    struct stat parent {};
    struct stat file {};
    const std::string path = directory + name;
    const bool isThere = stat(directory.c_str(), &parent) == 0 && stat(path.c_str(), &file) == 0 &&
                         S_ISREG(file.st_mode) && file.st_dev == parent.st_dev;
    return isThere ? static_cast<uint64_t>(file.st_blocks) * 512 : 0;
}

// `isNamed`: by a variable.
void CheckLogDirectory(Findings& findings, const TraceSettings& settings, bool isNamed) {
    const std::string directory = settings.InForce().logDirectory.Get();
    if (directory.empty() && !isNamed) {
        // Reported with the configuration: it has no file.
    } else if (directory.empty()) {
        findings.Warning("the log directory is the empty text: kemd writes /log.kemd",
                         "unset OV_LOG_RINGBUF_DIR, or let it name a directory");
    } else if (!directory.starts_with('/')) {
        return findings.Warning(
            "the log directory \"" + Printable(directory) +
                "\" is not an absolute path: it depends on where kemd is started",
            "give one that begins with /");
    } else {
        CheckDirectory(findings, directory);
    }
    // These are truncated at a start.
    uint64_t freed = 0;
    for (const char* const name : {"/log.kemd", "/log.kemd_i", "/log.kemd_a"}) {
        freed += SpaceTaken(directory, name);
    }
    CheckRoom(findings, directory.empty() ? "/" : directory,
              {"write its trace there", settings.SpaceNeeded(), freed,
               ", or give another directory (RingBufferDirectory) or smaller ring buffers "
               "(RingBufferSizeFactor, RingBufferSizeWeight)"});
}

}  // namespace

void CheckDirectories(Findings& findings, const DaemonFacts& daemon) {
    CheckLogDirectory(findings, TraceSettings(daemon.environment),
                      daemon.environment.Find("OV_LOG_RINGBUF_DIR") != nullptr);
    CheckDirectory(findings, kRegistryDirectory);
    // The new file is written beside the old one.
    CheckRoom(findings, kRegistryDirectory,
              {"save the registry there",
               std::max<uint64_t>(SpaceTaken(kRegistryDirectory, "/registry"), 4096), 0,
               "; until then no change of the registry lasts"});
    struct stat status {};
    if (stat(kTraceConfigDirectory, &status) == 0 && S_ISDIR(status.st_mode)) {
        CheckDirectory(findings, kTraceConfigDirectory);
    } else {
        (void)CheckInRootsHands(findings, kTraceConfigDirectory, true);
    }
    // Without it a start fails as if another instance were running.
    CheckDirectory(findings, "/var/lock", true);
    CheckDirectory(findings, "/var/run");
}
