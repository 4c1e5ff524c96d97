#include "trace_reader/unpack_gzip.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

namespace {

// Starts "gzip -dc" from `in` to `out`; -1 when that fails.
pid_t StartGzip(int in, int out) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    // What the caller ignores (a broken pipe) must end the program.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::array<char, 5> name{"gzip"};
    std::array<char, 4> option{"-dc"};
    const std::array<char*, 3> arguments = {name.data(), option.data(), nullptr};
    pid_t child = -1;
    char* const environment[] = {nullptr};
    // Not by PATH, for root's sake.
    bool isStarted = false;
    for (const char* path : {"/usr/bin/gzip", "/bin/gzip"}) {
        isStarted = isStarted || posix_spawn(&child, path, &actions, &attributes, arguments.data(),
                                             environment) == 0;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return isStarted ? child : -1;
}

bool WriteAll(int fd, const char* bytes, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Everything up to the end of the pipe or the limit.
void Copy(int from, Unpacked& to, uint64_t limit) {
    constexpr size_t kBlock = size_t{1} << 16;
    const auto block = std::make_unique<char[]>(kBlock);
    uint64_t copied = 0;
    for (;;) {
        const ssize_t got = read(from, block.get(), kBlock);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return;
        copied += static_cast<uint64_t>(got);
        to.isTooLong = copied > limit;
        if (to.isTooLong) return;
        if (!WriteAll(to.file.Get(), block.get(), static_cast<size_t>(got))) {
            to.isDamaged = true;
            return;
        }
    }
}

}  // namespace

Unpacked UnpackGzip(int fd, uint64_t limit) {
    Unpacked result;
    std::array<int, 2> ends{};
    if (lseek(fd, 0, SEEK_SET) != 0 || pipe2(ends.data(), O_CLOEXEC) != 0) return result;
    UniqueFd from(ends[0]), to(ends[1]);
    const pid_t child = StartGzip(fd, to.Get());
    to.Reset();
    if (child < 0) return result;
    result.file.Reset(memfd_create("trace", MFD_CLOEXEC));
    if (result.file.IsOpen()) Copy(from.Get(), result, limit);
    from.Reset();  // ends a gzip that still writes
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    if (!result.isTooLong && status != 0) result.isDamaged = true;
    return result;
}
