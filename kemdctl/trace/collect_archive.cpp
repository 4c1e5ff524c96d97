#include "kemdctl/trace/collect_archive.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "kemdctl/ui/output_file.h"

namespace {

constexpr size_t kBlock = 512;

// With these standard descriptors; signals as a program expects them. -1: not started.
pid_t Spawn(const std::vector<const char*>& arguments, int input, int output, int error) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, error, STDERR_FILENO);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const char* argument : arguments) words.push_back(const_cast<char*>(argument));
    words.push_back(nullptr);
    pid_t child = -1;
    if (posix_spawnp(&child, words[0], &actions, &attributes, words.data(), environ) != 0) {
        child = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

// Whether the child ended with status 0.
bool Wait(pid_t child) {
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return status == 0;
}

std::string ReadForAWhile(int fd) {
    using Clock = std::chrono::steady_clock;
    constexpr size_t kMost = size_t{4} << 20;
    const auto end = Clock::now() + std::chrono::seconds(20);
    std::array<char, 4096> block{};
    std::string text;
    while (text.size() < kMost) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        pollfd wait = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) break;
        const ssize_t got = read(fd, block.data(), block.size());
        if (got <= 0) break;
        text.append(block.data(), static_cast<size_t>(got));
    }
    return text;
}

// POSIX's ustar form. Octal numbers, and a sum of all bytes with blanks in its own place.
std::array<char, kBlock> MakeHeader(const std::string& name, uint64_t size) {
    std::array<char, kBlock> header{};
    const auto put = [&header](size_t at, size_t width, uint64_t number) {
        std::array<char, 24> text{};
        std::snprintf(text.data(), text.size(), "%0*llo", static_cast<int>(width),
                      static_cast<unsigned long long>(number));
        std::copy_n(text.begin(), width, header.begin() + static_cast<std::ptrdiff_t>(at));
    };
    name.copy(header.data(), 99);
    put(100, 7, 0600);
    put(108, 7, 0);
    put(116, 7, 0);
    put(124, 11, size);
    put(136, 11, static_cast<uint64_t>(time(nullptr)));
    std::memset(header.data() + 148, ' ', 8);
    header[156] = '0';
    std::memcpy(header.data() + 257,
                "ustar\0"
                "00",
                8);
    uint64_t sum = 0;
    for (const char c : header) sum += static_cast<unsigned char>(c);
    put(148, 6, sum);
    header[154] = '\0';
    return header;
}

}  // namespace

std::string RunProgram(const std::vector<const char*>& arguments) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
    UniqueFd from(ends[0]), to(ends[1]);
    const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const pid_t child = Spawn(arguments, null.Get(), to.Get(), to.Get());
    to.Reset();
    if (child < 0) return {};
    std::string text = ReadForAWhile(from.Get());
    kill(child, SIGKILL);  // harmless if it has ended
    (void)Wait(child);
    return text;
}

// Writes nothing: what is not finished is thrown away.
TarGzip::~TarGzip() {
    m_pipe.Reset();
    if (m_gzip > 0) (void)Wait(m_gzip);
}

bool TarGzip::Start(int output) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    const UniqueFd from(ends[0]);
    m_pipe.Reset(ends[1]);
    m_gzip = Spawn({"gzip", "-c"}, from.Get(), output, STDERR_FILENO);
    return m_gzip > 0;
}

bool TarGzip::Add(const std::string& name, uint64_t size,
                  const std::function<bool(const Put&)>& produce) {
    const auto header = MakeHeader(name, size);
    if (!WriteFully(m_pipe.Get(), {header.data(), header.size()})) return false;
    uint64_t left = size;
    const Put put = [this, &left](std::string_view text) {
        text = text.substr(0, left);
        left -= text.size();
        return WriteFully(m_pipe.Get(), text);
    };
    if (!produce(put)) return false;
    const std::string zeros(size_t{1} << 16, '\0');
    left += (kBlock - size % kBlock) % kBlock;
    while (left > 0) {
        if (!put(zeros)) return false;
    }
    return true;
}

bool TarGzip::Finish() {
    if (m_gzip < 0) return false;
    const std::string end(2 * kBlock, '\0');
    const bool isWritten = WriteFully(m_pipe.Get(), end);
    m_pipe.Reset();
    const bool isEnded = Wait(m_gzip);
    m_gzip = -1;
    return isWritten && isEnded;
}
