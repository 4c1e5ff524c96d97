#include "tools/kemdctl/gunzip.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "services/base/unique_fd.h"

void Gunzip(int file, const std::function<void(int text)>& read) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd text(ends[0]);
    UniqueFd output(ends[1]);
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return;
    posix_spawn_file_actions_adddup2(&actions, file, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.Get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char name[] = "gzip";
    char option[] = "-dc";
    char* const arguments[] = {name, option, nullptr};
    char* const environment[] = {nullptr};
    pid_t child = 0;
    // Not by PATH, for root's sake.
    const bool isStarted =
        posix_spawn(&child, "/usr/bin/gzip", &actions, nullptr, arguments, environment) == 0 ||
        posix_spawn(&child, "/bin/gzip", &actions, nullptr, arguments, environment) == 0;
    posix_spawn_file_actions_destroy(&actions);
    output.Reset();
    if (!isStarted) return;
    read(text.Get());
    (void)waitpid(child, nullptr, 0);
}
