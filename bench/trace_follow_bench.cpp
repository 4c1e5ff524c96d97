// How long a record of a ring takes from its being written to its being shown by `kemdctl trace
// -f`, and whether that does anything while nothing is written. Run in a private root, see
// docs/testing.md.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/measure.h"
#include "trace/debug.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRecords = 100;

// The other end of a pipe that kemdctl writes to.
struct Follower {
    pid_t pid = -1;
    int output = -1;

    Follower() {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) std::exit(1);
        output = ends[0];
        pid = fork();
        if (pid != 0) {
            close(ends[1]);
            return;
        }
        dup2(ends[1], STDOUT_FILENO);
        execl("/build/bin/kemdctl", "kemdctl", "trace", "-f", "-n", "0", "-q", nullptr);
        _exit(127);
    }

    // Reads until the text has come; false when nothing comes within a second.
    [[nodiscard]] bool ReadUntil(const std::string& text) const {
        std::string shown;
        for (pollfd event{output, POLLIN, 0}; poll(&event, 1, 1000) == 1;) {
            std::array<char, 4096> fragment{};
            const ssize_t length = read(output, fragment.data(), fragment.size());
            if (length <= 0) return false;
            shown.append(fragment.data(), static_cast<size_t>(length));
            if (shown.find(text) != shown.npos) return true;
        }
        return false;
    }

    [[nodiscard]] long Switches() const {
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        long sum = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.find("ctxt_switches:") == line.npos) continue;
            sum += std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
        }
        return sum;
    }
};

void StartTrace() {
    std::filesystem::create_directories("/var/log/orvmon");
    setenv("OV_LOG_DEBUG_LEVEL", "3", 1);
    setenv("TraceFileLimit", "1", 1);
    setenv("OV_LOG_RINGBUF_WEIGHT", "1", 1);
    (void)Debug.Init("kemd");
    Debug.InitDone();
}

}  // namespace

int main() {
    StartTrace();
    const Follower follower;
    sleep(1);

    std::vector<double> milliseconds;
    int missed = 0;
    for (int i = 0; i < kRecords; ++i) {
        usleep(20'000);
        const std::string text = "record " + std::to_string(i) + " of the follower's";
        const auto start = Clock::now();
        Debug.Trace(1, "%s", text.c_str());
        if (follower.ReadUntil(text)) {
            const std::chrono::duration<double, std::milli> took = Clock::now() - start;
            milliseconds.push_back(took.count());
        } else {
            ++missed;
        }
    }
    if (milliseconds.empty()) return std::puts("nothing was shown"), 1;
    std::sort(milliseconds.begin(), milliseconds.end());
    std::printf("record shown after: median %.2f ms, worst %.2f ms; missed %d of %d\n",
                Median(milliseconds), milliseconds.back(), missed, kRecords);

    usleep(200'000);
    const long before = follower.Switches();
    sleep(3);
    std::printf("context switches of kemdctl in three quiet seconds: %ld\n",
                follower.Switches() - before);
    kill(follower.pid, SIGINT);
    waitpid(follower.pid, nullptr, 0);
}
