// What users wait for: kemdctl performance as a process, from its start to its end.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/performance_parts.h"
#include "performance/history_reader.h"

namespace {

constexpr int64_t kSecond = 1'000'000'000;

std::string TimeWord(int64_t wall) {
    const time_t seconds = wall / kSecond;
    char text[32];
    (void)strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime(&seconds));
    return text;
}

// Milliseconds; negative when it failed.
double Run(std::vector<std::string> words, const char* output) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output, O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    const auto from = std::chrono::steady_clock::now();
    pid_t process = -1;
    int status = -1;
    if (posix_spawn(&process, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        (void)waitpid(process, &status, 0);
    }
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - from;
    posix_spawn_file_actions_destroy(&actions);
    return status == 0 ? took.count() : -1;
}

void Show(const char* name, const std::vector<std::string>& words, const char* output) {
    constexpr int kRuns = 21;
    std::vector<double> took;
    for (int i = 0; i < kRuns; ++i) took.push_back(Run(words, output));
    std::sort(took.begin(), took.end());
    if (took.front() < 0) {
        std::printf("  %s: the command failed\n", name);
        return;
    }
    std::printf("  %-44s %8.2f ms, %.2f to %.2f, output to %s\n", name, took[kRuns / 2],
                took.front(), took.back(), output);
}

}  // namespace

void MeasureCommands(const char* history) {
    std::error_code failed;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", failed);
    const std::string kemdctl = self.parent_path().parent_path() / "bin/kemdctl";
    std::string error;
    const auto reader = HistoryReader::Open(history, error);
    if (reader == nullptr || access(kemdctl.c_str(), X_OK) != 0) {
        std::printf("  commands are not measured: %s\n",
                    reader == nullptr ? error.c_str() : (kemdctl + " is missing").c_str());
        return;
    }
    const int64_t end = reader->Range().to;
    const std::string one = SeriesId(reader->Series().front());
    for (const char* output : {"/dev/null", "/tmp/performance_bench/output"}) {
        Show("kemdctl: a day of one series by the minute",
             {kemdctl, "performance", "show", one, "--file", history, "--step", "1m", "--since",
              TimeWord(end - 86'400 * kSecond)},
             output);
        Show("kemdctl: the last 5 minutes of all series",
             {kemdctl, "performance", "export", "--csv", "--file", history, "--since",
              TimeWord(end - 300 * kSecond)},
             output);
    }
}
