// The whole inventory as a user starts it, `kemdctl inventory --json`, beside the tools that each
// know a part of it. Every round starts each of them once, with its output dropped.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/measure.h"

namespace {

using Words = std::vector<std::string>;

// The peak resident memory of the process, in KiB, which is no less than this program's own;
// negative when it failed or cannot be started.
long Run(const Words& words) {
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t process = -1;
    const int error = posix_spawnp(&process, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    rusage used{};
    int status = -1;
    const bool isDone = error == 0 && wait4(process, &status, 0, &used) == process && status == 0;
    return isDone ? used.ru_maxrss : -1;
}

}  // namespace

int main() {
    std::error_code failed;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", failed);
    const std::string kemdctl = self.parent_path().parent_path() / "bin/kemdctl";
    const Words commands[] = {
        {kemdctl, "inventory", "--json"},
        {kemdctl, "inventory", "--json", "--no-health"},
        {"lspci", "-O", "hwdb.disable=1", "-vmmk"},
        {"lsblk", "-O", "-J"},
        {"lshw", "-json", "-quiet"},
        {"hwinfo", "--all"},
    };
    std::vector<Contender> contenders;
    std::vector<std::string> memory;
    for (const Words& words : commands) {
        std::string name = std::filesystem::path(words[0]).filename();
        for (size_t i = 1; i < words.size(); ++i) name += " " + words[i];
        const long most = Run(words);
        if (most < 0) {
            std::printf("%s: not measured, it is not installed or it failed\n", name.c_str());
            if (contenders.empty()) return 1;
            continue;
        }
        memory.push_back(name + ": " + std::to_string(most) + " KiB");
        contenders.push_back(Make(name.c_str(), [words](int) {
            if (Run(words) < 0) std::abort();
        }));
    }
    MeasureRounds(contenders, 25, 1);
    Report("the whole inventory", contenders);
    std::printf("peak resident memory\n");
    for (const std::string& line : memory) std::printf("  %s\n", line.c_str());
    return 0;
}
