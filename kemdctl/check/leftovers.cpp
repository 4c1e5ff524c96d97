#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/check/path_findings.h"
#include "kemdctl/ui/text.h"

namespace {

// In a directory that all may write, any user may have created the file. With fs.protected_regular,
// or for a link fs.protected_symlinks, not even root can then open it for writing.
bool IsForeignLock(Findings& findings, const DaemonState& state) {
    struct stat status {};
    if (lstat(kLockFile, &status) != 0 || status.st_uid == 0) return false;
    const std::string action = std::string("rm ") + kLockFile;
    findings.Error(std::string(kLockFile) + ": belongs to user " + std::to_string(status.st_uid) +
                       ": kemd may take it for the lock of another instance and not start",
                   state.daemon ? "stop kemd; " + action : action);
    return true;
}

void CheckLock(Findings& findings, const DaemonState& state) {
    if (IsForeignLock(findings, state)) return;
    const LockFacts& lock = state.lock;
    const std::string shown = std::string(kLockFile) + ": ";
    if (lock.error != 0) return findings.CannotLook(kLockFile, lock.error);
    if (state.daemon && !lock.exists) {
        return findings.Warning(shown + "not there although kemd runs: a second one could start",
                                "restart kemd");
    }
    const bool isFree = lock.held == LockFacts::kFree && lock.hasSeenAll;
    if (state.daemon && isFree) {
        return findings.Warning(shown + "not held although kemd runs: a second one could start",
                                "restart kemd");
    }
    if (!state.daemon && lock.held == LockFacts::kHeld) {
        return findings.Error(shown + DescribeLock(state) +
                                  ", though kemd does not run: it cannot "
                                  "be started",
                              "end the process that holds it");
    }
    if (!state.daemon && lock.exists && isFree) {
        return findings.Ok(shown + "left over and not held: harmless");
    }
    findings.Ok(shown + DescribeLock(state));
}

void CheckPidFile(Findings& findings, const DaemonState& state) {
    const PidFileFacts& file = state.pidFile;
    const std::string shown = std::string(kPidFile) + ": ";
    if (file.error != 0) return findings.CannotLook(kPidFile, file.error);
    const bool isRight = !file.exists || (state.daemon && state.daemon->pid == file.process.pid);
    if (isRight) return findings.Ok(shown + DescribePidFile(state));
    const std::string action = state.daemon
                                   ? "echo " + std::to_string(state.daemon->pid) + " >" + kPidFile
                                   : std::string("rm ") + kPidFile;
    findings.Warning(shown + DescribePidFile(state) +
                         ": a stop that uses it reaches no process, or the wrong one",
                     action);
}

// The daemon reads the number at the start of the file.
void CheckRunLevel(Findings& findings) {
    const std::string shown = kRunLevelFile;
    const auto text = ReadTextFile(kRunLevelFile, 64);
    const int error = errno;
    if (!text && error == ENOENT) return findings.Ok(shown + " is not there, as it should be");
    if (!text && IsMasked(shown)) return findings.Ok(shown + " is masked: it leads to /dev/null");
    if (!text) return findings.CannotLook(kRunLevelFile, error);
    char* end = nullptr;
    const long level = std::strtol(text->c_str(), &end, 10);
    const bool isShutdown = end != text->c_str() && (level == 0 || level == 6);
    if (!isShutdown) return findings.Ok(shown + " holds neither 0 nor 6: no stop is delayed by it");
    findings.Warning(shown + " holds " + std::to_string(level) +
                         ": the next plain stop would look like a shutdown of the system",
                     "rm " + shown);
}

}  // namespace

void CheckLeftovers(Findings& findings, const DaemonFacts& daemon) {
    CheckLock(findings, daemon.state);
    CheckPidFile(findings, daemon.state);
    CheckRunLevel(findings);
}
