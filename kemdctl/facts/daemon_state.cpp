#include "kemdctl/facts/daemon_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/run_modes.h"
#include "kemdctl/ui/text.h"

namespace {

PidFileFacts ReadPidFile() {
    PidFileFacts facts;
    const auto text = ReadTextFile(kPidFile, 64);
    facts.error = text || errno == ENOENT ? 0 : errno;
    facts.exists = text || facts.error != 0;
    if (!text) return facts;
    const long pid = std::strtol(text->c_str(), nullptr, 10);
    if (pid > 0 && pid <= INT32_MAX) facts.process = ReadProcess(static_cast<pid_t>(pid));
    return facts;
}

// The holder of the lock is the daemon, whatever the files say; without a holder, the process that
// they name.
std::optional<ProcessFacts> ChooseDaemon(const DaemonState& state) {
    const ProcessFacts& named = state.pidFile.process;
    if (IsDaemon(named) && (state.lock.holders.empty() || state.IsHolder(named.pid))) return named;
    for (const pid_t holder : state.lock.holders) {
        ProcessFacts process = ReadProcess(holder);
        if (IsDaemon(process)) return process;
    }
    if (IsDaemon(named)) return named;
    ProcessFacts taker = ReadProcess(state.lock.taker);
    if (IsDaemon(taker)) return taker;
    ProcessFacts found = ReadProcess(FindDaemon());
    if (IsDaemon(found)) return found;
    const bool isHidden = named.isAlive && !named.isVisible;
    if (isHidden && state.lock.held != LockFacts::kFree) return named;
    return std::nullopt;
}

std::string Process(pid_t pid) {
    return "process " + std::to_string(pid);
}

}  // namespace

bool DaemonState::IsHolder(pid_t pid) const {
    return std::find(lock.holders.begin(), lock.holders.end(), pid) != lock.holders.end();
}

pid_t DaemonState::Holder() const {
    if (daemon && IsHolder(daemon->pid)) return daemon->pid;
    return lock.holders.empty() ? 0 : lock.holders.front();
}

DaemonState ReadDaemonBriefly() {
    DaemonState state;
    state.pidFile = ReadPidFile();
    state.daemon = ChooseDaemon(state);
    return state;
}

DaemonState ReadDaemonState() {
    DaemonState state;
    state.lock = ReadLock(kLockFile);
    state.pidFile = ReadPidFile();
    state.daemon = ChooseDaemon(state);
    return state;
}

std::string DescribeLock(const DaemonState& state) {
    const LockFacts& lock = state.lock;
    if (!lock.exists) {
        return lock.error == 0 ? "not there"
                               : std::string("cannot be looked at: ") + std::strerror(lock.error);
    }
    std::string text = lock.error == 0
                           ? "written by \"" + Printable(lock.content) + "\", "
                           : std::string("not readable (") + std::strerror(lock.error) + "), ";
    if (state.Holder() > 0) return text + "held by " + Process(state.Holder());
    if (lock.held == LockFacts::kHeld) {
        if (lock.taker > 0) text += "held, taken by " + Process(lock.taker);
        if (lock.taker == 0) text += "held";
        return text + (lock.hasSeenAll ? ", no process has it open"
                                       : "; only root can see which process has it open");
    }
    if (lock.held == LockFacts::kFree && (lock.hasSeenAll || !state.daemon)) {
        return text + "not held";
    }
    return text + "only root can see whether it is held";
}

std::string DescribePidFile(const DaemonState& state) {
    const PidFileFacts& file = state.pidFile;
    const ProcessFacts& process = file.process;
    if (file.error != 0) return std::string("cannot be read: ") + std::strerror(file.error);
    if (!file.exists) return state.daemon ? "not there, which is allowed" : "not there";
    if (process.pid == 0) return "names no process";
    const std::string name = Process(process.pid);
    if (!process.isAlive) return name + ", which is not running";
    if (!process.isVisible) return name + ", which is running but cannot be identified";
    if (!IsDaemon(process)) {
        return name + ", which is not the daemon but \"" + Printable(process.name) + "\"";
    }
    if (state.lock.holders.empty()) return name + ", the daemon";
    return name + (state.IsHolder(process.pid) ? ", the daemon and holder of the lock"
                                               : ", which has the daemon's name but not the lock");
}

RunOptions ReadRunOptions(const ProcessFacts& daemon) {
    RunOptions options;
    for (size_t i = 1; i < daemon.arguments.size(); ++i) {
        const std::string_view argument = daemon.arguments[i];
        if (argument == "-n" || argument == "-nodemon") options.isForeground = true;
        if (argument == "-rescan") options.isRescan = true;
        for (const RunModeOption& each : kRunModeOptions) {
            if (argument != each.option) continue;
            options.mode = each.mode;
            options.modeName = each.name;
        }
    }
    return options;
}
