#include "kemdctl/facts/process_facts.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "base/file_io.h"
#include "base/text.h"

namespace {

constexpr std::string_view kDaemonName = "kemd";

std::string ProcPath(pid_t pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

// What follows "Key:" at the start of a line; empty when there is no such line.
std::string StatusField(const std::string& status, const std::string& key) {
    const size_t found = ("\n" + status).find("\n" + key + ":");
    if (found == std::string::npos) return {};
    std::string_view rest = std::string_view(status).substr(found + key.size() + 1);
    return std::string(TrimStart(TakeLine(rest)));
}

std::vector<std::string> SplitAtNul(const std::string& text) {
    std::vector<std::string> parts;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\0', start), text.size());
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// The system's start plus field 22 of the process's stat file, in clock ticks.
std::optional<time_t> StartTime(pid_t pid) {
    constexpr int kFieldsBetween = 19;  // from the state, field 3, on
    const auto system = ReadTextFile("/proc/stat");
    const auto stat = ReadTextFile(ProcPath(pid, "stat"));
    const size_t boot = system ? system->find("\nbtime ") : std::string::npos;
    size_t position = stat ? stat->rfind(") ") : std::string::npos;  // the name may hold anything
    if (boot == std::string::npos || position == std::string::npos) return std::nullopt;
    ++position;
    for (int i = 0; i < kFieldsBetween && position != std::string::npos; ++i) {
        position = stat->find(' ', position + 1);
    }
    if (position == std::string::npos) return std::nullopt;
    const long ticks = sysconf(_SC_CLK_TCK);
    const auto started = std::strtoull(stat->c_str() + position, nullptr, 10);
    const auto seconds = started / static_cast<unsigned long>(ticks > 0 ? ticks : 100);
    return static_cast<time_t>(std::strtoll(system->c_str() + boot + 7, nullptr, 10)) +
           static_cast<time_t>(seconds);
}

// By the program file, which only root sees: a module may rename the thread, and a script may have
// the daemon's name.
bool HasDaemonName(const ProcessFacts& process) {
    std::string target(4096, '\0');
    const ssize_t length =
        readlink(ProcPath(process.pid, "exe").c_str(), target.data(), target.size());
    if (length < 0) return process.name == kDaemonName;
    target.resize(static_cast<size_t>(length));
    constexpr std::string_view kReplaced = " (deleted)";  // by an upgrade
    if (target.ends_with(kReplaced)) target.resize(target.size() - kReplaced.size());
    return target.substr(target.rfind('/') + 1) == kDaemonName;
}

}  // namespace

ProcessFacts ReadProcess(pid_t pid) {
    ProcessFacts process;
    process.pid = pid;
    if (pid <= 0) return process;
    const auto status = ReadTextFile(ProcPath(pid, "status"));
    if (!status) {
        process.isAlive = kill(pid, 0) == 0 || errno == EPERM;
        return process;
    }
    const std::string state = StatusField(*status, "State");
    process.isVisible = true;
    process.isAlive = !state.starts_with('Z') && !state.starts_with('X');
    process.name = StatusField(*status, "Name");
    process.parent = static_cast<pid_t>(std::atol(StatusField(*status, "PPid").c_str()));
    // Real, effective, saved, file system. A set-uid program of an ordinary user has only the
    // second.
    process.isRoots = StatusField(*status, "Uid").starts_with("0\t0\t");
    process.isContained = StatusField(*status, "NSpid").find('\t') != std::string::npos;
    process.started = StartTime(pid);
    process.arguments = SplitAtNul(ReadTextFile(ProcPath(pid, "cmdline")).value_or(""));
    return process;
}

bool IsDaemon(const ProcessFacts& process) {
    return process.isAlive && process.isVisible && process.isRoots && !process.isContained &&
           HasDaemonName(process);
}

std::vector<pid_t> ListProcesses() {
    std::vector<pid_t> processes;
    const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    while (const dirent* entry = proc ? readdir(proc.get()) : nullptr) {
        const auto pid = static_cast<pid_t>(std::atol(entry->d_name));
        if (pid > 0) processes.push_back(pid);
    }
    return processes;
}

pid_t FindDaemon() {
    std::vector<ProcessFacts> daemons;
    for (const pid_t pid : ListProcesses()) {
        ProcessFacts process;
        process.pid = pid;
        process.name = ReadTextFile(ProcPath(pid, "comm")).value_or("");
        process.name = process.name.substr(0, process.name.find('\n'));
        if (!HasDaemonName(process)) continue;  // all of each would take ten milliseconds
        process = ReadProcess(pid);
        if (IsDaemon(process)) daemons.push_back(std::move(process));
    }
    const ProcessFacts* oldest = nullptr;
    for (const ProcessFacts& each : daemons) {
        const bool isChild =
            std::any_of(daemons.begin(), daemons.end(),
                        [&each](const ProcessFacts& other) { return other.pid == each.parent; });
        if (!isChild && (oldest == nullptr || each.started < oldest->started)) oldest = &each;
    }
    return oldest != nullptr ? oldest->pid : 0;
}

std::optional<bool> HasMapped(pid_t pid, const std::string& name) {
    const auto maps = ReadTextFile(ProcPath(pid, "maps"), size_t{64} << 20);
    if (!maps) return std::nullopt;
    return maps->find("/" + name + "\n") != maps->npos;
}

std::optional<std::vector<std::string>> ReadProcessEnvironment(pid_t pid) {
    const auto text = ReadTextFile(ProcPath(pid, "environ"));
    if (!text) return std::nullopt;
    return SplitAtNul(*text);
}
