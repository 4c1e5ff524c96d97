// trace_reader_bench KEMDCTL FILE - what it costs to read a large ring. FILE is written first: a
// ring of 256 MiB in its second cycle, whose newest record stands in the middle, with records of
// the usual 100 bytes or so. Then: the file through a pipe, in time order and as it is; and how
// long it takes to find where a time begins. Run it where FILE stays in memory, and three times:
// the first run after writing it is slower for all contenders alike.
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "bench/measure.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_source.h"

namespace {

constexpr size_t kSize = size_t{256} << 20;
constexpr int64_t kStart = 1794773091000;
constexpr std::string_view kBegin = "### Begin of RingBuffer. ###";

std::string Line(int64_t number, std::string_view text) {
    return std::string(FormatTime(kStart + number).data()) +
           " [D82A0740]     3188 KB !kemd          " + std::string(text) + "\n";
}

// As docs/trace-files.md draws it. The header is short.
void WriteRing(const char* path) {
    std::string ring = Line(0, "# End of header.") + "## TRACE-END ##\n";
    const auto fill = [&ring](size_t end, int64_t& number) {
        for (;; ++number) {
            const std::string line =
                Line(number, "KEMD-MAIN: record " + std::to_string(number) + " of a busy daemon");
            if (ring.size() + line.size() + 16 > end) return;
            ring += line;
        }
    };
    ring.resize(2048, '_');
    ring[2047] = '\n';
    ring += Line(0, kBegin);
    const size_t start = ring.size();
    int64_t number = 1;
    fill(kSize, number);
    ring.resize(kSize, '.');
    const std::string older = std::move(ring);
    ring.assign(older, 0, start);
    fill(kSize / 2, number);
    ring += "## TRACE-END ##\n";
    ring.append(older, ring.size(), older.npos);
    const UniqueFd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    for (size_t done = 0; done < ring.size();) {
        const ssize_t written = write(file.Get(), ring.data() + done, ring.size() - done);
        if (written <= 0) break;
        done += static_cast<size_t>(written);
    }
}

// Runs a program whose output goes through a pipe to nowhere. Returns how much that was.
size_t RunPiped(std::vector<std::string> words) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return 0;
    const UniqueFd from(ends[0]);
    UniqueFd to(ends[1]);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to.Get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int error =
        posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    to.Reset();
    static std::array<char, 1 << 17> block;
    size_t count = 0;
    ssize_t got = 0;
    while (error == 0 && (got = read(from.Get(), block.data(), block.size())) > 0) {
        count += static_cast<size_t>(got);
    }
    if (error == 0) waitpid(child, nullptr, 0);
    return count;
}

// The first record of a time in the middle of the older half.
void Seek(const char* path, bool isSought) {
    const int64_t time = kStart + 2'000'000;
    TraceSource source(path, 0);
    if (!source.Open()) return;
    if (isSought) source.Select(time, INT64_MAX);
    for (TraceRecord record; source.Next(record) && record.time < time;) continue;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s KEMDCTL FILE\n", argv[0]);
        return 2;
    }
    const char* const path = argv[2];
    WriteRing(path);
    const size_t shown = RunPiped({argv[1], "trace", path});
    std::printf("a ring of %zu bytes, %zu bytes of records\n", kSize, shown);
    std::vector<Contender> pipes = {Make("cat",
                                         [path](int) {
                                             (void)RunPiped({"cat", path});
                                         }),
                                    Make("kemdctl trace", [&](int) {
                                        (void)RunPiped({argv[1], "trace", path});
                                    })};
    MeasureRounds(pipes, 15, 1);
    Report("through a pipe", pipes);
    std::vector<Contender> seeks = {
        Make("reading up to a time", [path](int) { Seek(path, false); }),
        Make("seeking it", [path](int) { Seek(path, true); })};
    MeasureRounds(seeks, 7, 1);
    Report("the start of a time", seeks);
    std::vector<Contender> ends = {Make("cat of nothing",
                                        [](int) {
                                            (void)RunPiped({"cat", "/dev/null"});
                                        }),
                                   Make("kemdctl trace -n 10", [&](int) {
                                       (void)RunPiped({argv[1], "trace", "-n10", path});
                                   })};
    MeasureRounds(ends, 15, 1);
    Report("the last records", ends);
    return 0;
}
