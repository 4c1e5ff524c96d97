#include "module_host/findings.h"

#include <cxxabi.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/elf_exports.h"
#include "base/file_io.h"
#include "base/process_setup.h"
#include "base/text.h"

namespace {

using Status = std::map<std::string, std::string>;

// The lines "Name: value" of a status file; empty when there is none.
Status ReadStatus(const std::string& path) {
    Status status;
    const std::string text = ReadTextFile(path).value_or("");
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = TakeLine(rest);
        const size_t colon = std::min(line.find(':'), line.size());
        const std::string_view value = TrimStart(line.substr(std::min(colon + 1, line.size())));
        if (!value.empty()) status[std::string(line.substr(0, colon))] = value;
    }
    return status;
}

SignalSet Signals(const Status& status, const char* key) {
    const auto found = status.find(key);
    return found == status.end() ? 0 : std::strtoull(found->second.c_str(), nullptr, 16);
}

// The entries of a directory whose names are numbers.
std::vector<int> Numbers(const std::string& directory) {
    std::vector<int> numbers;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), closedir);
    if (!entries) return numbers;
    while (const dirent* entry = readdir(entries.get())) {
        char* end = nullptr;
        const long number = std::strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0') numbers.push_back(static_cast<int>(number));
    }
    return numbers;
}

std::string LinkTarget(const std::string& path) {
    std::array<char, 4096> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return {target.data(), static_cast<size_t>(length < 0 ? 0 : length)};
}

constexpr SignalSet Bit(int signal) {
    return SignalSet{1} << (signal - 1);
}

// "SIGTERM SIGHUP", and a number for a signal without a name.
std::string Names(SignalSet signals) {
    std::string names;
    for (int signal = 1; signal <= 64; ++signal) {
        if ((signals & Bit(signal)) == 0) continue;
        const char* name = sigabbrev_np(signal);
        names += names.empty() ? "" : " ";
        names += name != nullptr ? std::string("SIG") + name : std::to_string(signal);
    }
    return names;
}

SignalSet DaemonSignals() {
    const sigset_t waited = WaitSignals();
    SignalSet signals = 0;
    for (int signal = 1; signal <= 64; ++signal) {
        if (sigismember(&waited, signal) == 1) signals |= Bit(signal);
    }
    return signals;
}

void Add(Findings& findings, const std::string& what, SignalSet signals) {
    if (signals != 0) findings.push_back(what + Names(signals));
}

void CompareThreads(Findings& findings, pid_t caller, const ProcessView& before,
                    const ProcessView& after) {
    for (const auto& [id, thread] : after.threads) {
        const auto known = before.threads.find(id);
        const SignalSet was = known == before.threads.end() ? ~SignalSet{0} : known->second.blocked;
        if (id != caller) {
            Add(findings,
                "thread " + std::to_string(id) + " (" + thread.name +
                    ") does not block what only the daemon takes: ",
                DaemonSignals() & was & ~thread.blocked);
            continue;
        }
        Add(findings, "unblocked in the calling thread: ", was & ~thread.blocked);
        Add(findings, "blocked in the calling thread: ", thread.blocked & ~was);
    }
}

void CompareSignals(Findings& findings, const ProcessView& before, const ProcessView& after) {
    const SignalSet ignored = Bit(SIGPIPE) | Bit(SIGIO);
    Add(findings, "no longer ignored: ", before.ignored & ~after.ignored & ignored);
    Add(findings, "handler installed, but only the daemon takes: ",
        after.caught & ~before.caught & DaemonSignals());
    Add(findings,
        "ignored, so the daemon never sees: ", after.ignored & ~before.ignored & DaemonSignals());
}

void CompareFiles(Findings& findings, const ProcessView& before, const ProcessView& after,
                  const char* what) {
    for (const auto& [file, target] : before.files) {
        const auto now = after.files.find(file);
        if (now != after.files.end() && now->second == target) continue;
        findings.push_back(what + std::to_string(file) + " (" + target + ")");
    }
}

std::string Demangled(const std::string& name) {
    const std::unique_ptr<char, decltype(&free)> text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, nullptr), free);
    return text && name.starts_with("_Z") ? text.get() : name;  // "i" would be "int"
}

}  // namespace

Processes ChildrenOf(pid_t parent) {
    Processes children;
    const std::string wanted = std::to_string(parent);
    for (const int process : Numbers("/proc")) {
        Status status = ReadStatus("/proc/" + std::to_string(process) + "/status");
        if (status["PPid"] == wanted && status["State"][0] != 'Z') {
            children[process] = status["Name"];
        }
    }
    return children;
}

ProcessView LookAt(pid_t process) {
    ProcessView view;
    const std::string root = "/proc/" + std::to_string(process);
    for (const int thread : Numbers(root + "/task")) {
        Status status = ReadStatus(root + "/task/" + std::to_string(thread) + "/status");
        if (status.empty()) continue;  // it has ended
        view.threads[thread] = {status["Name"], Signals(status, "SigBlk")};
    }
    for (const int file : Numbers(root + "/fd")) {
        view.files[file] = LinkTarget(root + "/fd/" + std::to_string(file));
    }
    Status status = ReadStatus(root + "/status");
    view.ignored = Signals(status, "SigIgn");
    view.caught = Signals(status, "SigCgt");
    view.fileModeMask = status["Umask"];
    view.directory = LinkTarget(root + "/cwd");
    view.children = ChildrenOf(process);
    view.children.merge(ChildrenOf(getpid()));
    view.children.erase(process);
    view.readable = !view.directory.empty();
    return view;
}

Findings ReplacedSymbols(const char* module) {
    const ElfExports daemon = ReadElfExports("/proc/self/exe");  // exports what the daemon exports
    Findings findings;
    for (const std::string& name : ReadElfExports(module).names) {
        if (!daemon.Has(name)) continue;
        findings.push_back("symbol " + Demangled(name) +
                           " of the module is replaced by the daemon's: build it with "
                           "-fvisibility=hidden");
    }
    return findings;
}

Findings Changes(pid_t process, const ProcessView& before, const ProcessView& after) {
    Findings findings;
    CompareThreads(findings, process, before, after);
    CompareSignals(findings, before, after);
    if (after.fileModeMask != before.fileModeMask) {
        findings.push_back("file mode mask changed from " + before.fileModeMask + " to " +
                           after.fileModeMask);
    }
    if (after.directory != before.directory) {
        findings.push_back("working directory changed to " + after.directory);
    }
    return findings;
}

Findings LeftBehind(const ProcessView& first, const ProcessView& last) {
    Findings findings;
    CompareFiles(findings, first, last, "descriptor of the host closed or replaced: ");
    for (const auto& [file, target] : last.files) {
        if (first.files.contains(file)) continue;
        findings.push_back("descriptor left open: " + std::to_string(file) + " (" + target + ")");
    }
    for (const auto& [id, name] : last.children) {
        if (first.children.contains(id)) continue;
        findings.push_back("process left behind: " + std::to_string(id) + " (" + name + ")");
    }
    return findings;
}
