#include "module_host/process_view.h"

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <vector>

namespace {

using Status = std::map<std::string, std::string>;

// The lines "Name: value" of a status file; empty when there is none.
Status ReadStatus(const std::string& path) {
    Status status;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(':');
        const size_t value = line.find_first_not_of(" \t", colon + 1);
        if (colon == line.npos || value == line.npos) continue;
        status[line.substr(0, colon)] = line.substr(value);
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
        if (status.empty()) continue;  // ended meanwhile
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
