#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/commands.h"
#include "kemdctl/facts/daemon_environment.h"
#include "kemdctl/facts/daemon_state.h"
#include "kemdctl/trace/kept_runs.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl prepare

What the service does before it starts kemd. When the last run did not end in
order, its trace files are moved to log.kemd_runs/TIME in the trace directory,
where kemdctl trace --list-runs finds them. Then the lock file and the
process-id file of a process that is dead are removed.

KEMD_KEEP_RUNS and KEMD_KEEP_MIB in /etc/default/kemd say how many runs are
kept and how large they may be together; 5 and 32 unless set, 0 keeps none.
Of a run that is larger the log is kept, and what fits beside it.

Exit status: 0 done, 1 kemd runs, or its lock is held: nothing was touched,
2 an error, reported on standard error.
)";

bool Exists(const char* path, struct stat& status) {
    return lstat(path, &status) == 0;
}

// Holds the daemon's lock, so that no daemon starts meanwhile, and removes its file at the end,
// also while an ordinary user, who cannot be the daemon, holds the lock.
class StartLock {
  public:
    StartLock();
    // Whether the file was there and is one that a daemon wrote.
    [[nodiscard]] bool WasLeft() const { return m_wasLeft; }
    // The other process that has the lock and may be a daemon; empty: none.
    [[nodiscard]] const std::string& Holder() const { return m_holder; }
    [[nodiscard]] bool RemoveFile(ReportWriter& report) const;

  private:
    [[nodiscard]] bool Take();
    void FindHolder();

    UniqueFd m_file;
    bool m_wasThere = false;
    bool m_wasLeft = false;
    std::string m_holder;
};

StartLock::StartLock() {
    struct stat status {};
    m_wasThere = Exists(kLockFile, status);
    if (m_wasThere && !S_ISREG(status.st_mode)) return;
    // No daemon wrote a file that is not root's, whichever process holds its lock.
    if (!Take() && (!m_wasThere || status.st_uid == 0)) FindHolder();
    std::array<char, 5> owner{};
    m_wasLeft = m_wasThere && status.st_uid == 0 && m_file.IsOpen() &&
                ReadFullyAt(m_file.Get(), owner.data(), owner.size(), 0).count > 0 &&
                std::string_view(owner.data(), owner.size()) == "kemd#";
}

// Where no file can be created, no daemon can start either.
bool StartLock::Take() {
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int make = m_wasThere ? O_RDONLY : O_RDWR | O_CREAT | O_EXCL;
    m_file.Reset(open(kLockFile, make | kFlags, 0600));
    if (!m_file.IsOpen()) return m_wasThere || errno != EEXIST;
    return flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0;
}

void StartLock::FindHolder() {
    const LockFacts facts = ReadLock(kLockFile);
    if (facts.holders.empty()) m_holder = "a process that cannot be seen";
    for (const pid_t pid : facts.holders) {
        if (ReadProcess(pid).isRoots) m_holder = "process " + std::to_string(pid);
    }
}

// Whatever it is: of a link, only the link.
bool Remove(ReportWriter& report, const char* path, bool isReported = true) {
    if (std::remove(path) == 0) {
        if (isReported) report.Line(std::string("removed ") + path + ", which was left over");
        return true;
    }
    if (errno == ENOENT) return true;
    Complain("cannot remove %s, which was left over: %s", path, std::strerror(errno));
    return false;
}

bool StartLock::RemoveFile(ReportWriter& report) const {
    return (!m_wasThere && !m_file.IsOpen()) || Remove(report, kLockFile, m_wasThere);
}

bool EndedInOrder(const StartLock& lock, const std::string& directory) {
    struct stat status {};
    if (lock.WasLeft() || Exists(kPidFile, status)) return false;
    // A log that leads to /dev/null proves nothing.
    const std::string log = directory + "/log.kemd";
    const bool hasLog = stat(log.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return !hasLog || HasRunMark(log, RunMark::Kind::kExit);
}

// Digits and nothing else.
uint64_t Setting(const DaemonEnvironment& environment, const char* name, uint64_t usual) {
    const char* const value = environment.Find(name);
    if (value == nullptr || *value == '\0') return usual;
    constexpr size_t kMostDigits = 9;
    const std::string_view text = value;
    const bool isNumber =
        text.size() <= kMostDigits && text.find_first_not_of("0123456789") == text.npos;
    if (isNumber) return std::strtoull(value, nullptr, 10);
    Complain("%s=%s is not a number of at most nine digits: %llu is used", name,
             Printable(text).c_str(), static_cast<unsigned long long>(usual));
    return usual;
}

bool Keep(ReportWriter& report, const DaemonEnvironment& environment,
          const TraceSettings& settings) {
    constexpr uint64_t kUsualRuns = 5, kUsualMiB = 32;
    const uint64_t most = Setting(environment, "KEMD_KEEP_RUNS", kUsualRuns);
    const uint64_t bytes = Setting(environment, "KEMD_KEEP_MIB", kUsualMiB) << 20;
    if (most == 0 || bytes == 0) return true;
    KeptRuns runs(settings.Directory());
    KeptRun kept;
    const std::string problem = runs.Keep(bytes, kept);
    if (!kept.name.empty()) {
        report.Line("the last run did not end in order: its trace is kept in " +
                    Printable(runs.PathOf(kept)));
    }
    if (!problem.empty()) {
        Complain("%s of the last run is not kept: %s",
                 kept.name.empty() ? "the trace" : "a part of the trace", problem.c_str());
    }
    if (kept.name.empty()) return problem.empty();
    const uint64_t needed = settings.SpaceNeeded();
    const std::string left = runs.Trim(most, bytes, needed);
    if (!left.empty()) Complain("%s", left.c_str());
    if (runs.FreeBytes() < needed) {
        Complain("%s has %llu bytes free, the trace takes %llu: move the kept runs away",
                 Printable(settings.Directory()).c_str(),
                 static_cast<unsigned long long>(runs.FreeBytes()),
                 static_cast<unsigned long long>(needed));
    }
    return problem.empty() && left.empty();
}

}  // namespace

int RunPrepare(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 1> kOptions = {"--help"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    if (!line.HasOnly(kOptions) || !line.HasNoWords()) {
        Complain("see kemdctl prepare --help");
        return kError;
    }
    if (geteuid() != 0) {
        Complain("only root may do this: run it as root");
        return kError;
    }
    const DaemonState state = ReadDaemonState();
    const StartLock lock;
    if (state.daemon || !lock.Holder().empty()) {
        Complain("%s: nothing is touched",
                 state.daemon
                     ? ("kemd runs as process " + std::to_string(state.daemon->pid)).c_str()
                     : (std::string(kLockFile) + " is held by " + lock.Holder()).c_str());
        return kNo;
    }
    const DaemonEnvironment environment = ReadOwnEnvironment();
    const TraceSettings settings(environment);
    bool isDone = EndedInOrder(lock, settings.Directory()) || Keep(report, environment, settings);
    isDone = lock.RemoveFile(report) && isDone;
    isDone = Remove(report, kPidFile) && isDone;
    return isDone ? kYes : kError;
}
