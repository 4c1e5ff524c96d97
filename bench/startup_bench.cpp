// How long the daemon takes from execve to "Waiting for signals", less its one-second sleep, what
// memory it holds then, and whether it is quiet while it waits. Runs /build/bin/kemd in a private
// root.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "bench/measure.h"

namespace {

constexpr const char* kLog = "/var/log/orvmon/log.kemd";

double Now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_usec) / 1e3;
}

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The record's own time stamp, in milliseconds since the epoch; 0 while there is none.
double TimeOfRecord(const char* text) {
    std::ifstream log(kLog);
    for (std::string line; std::getline(log, line);) {
        if (line.find(text) == line.npos) continue;
        tm when{};
        const char* rest = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &when);
        return static_cast<double>(timegm(&when)) * 1e3 + std::strtod(rest + 1, nullptr);
    }
    return 0;
}

long StatusFigure(pid_t pid, const std::string& key) {
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    return std::strtol(status.c_str() + status.find(key) + key.size(), nullptr, 10);
}

struct Start {
    double milliseconds;
    long residentKb;
    long wakeUps;  // in the quiet second after the start
};

Start StartOnce() {
    std::filesystem::remove(kLog);
    const double begin = Now();
    const pid_t child = fork();
    if (child == 0) {
        (void)!freopen("/dev/null", "w", stderr);
        execl("/build/bin/kemd", "/usr/sbin/kemd", "-n", nullptr);
        _exit(127);
    }
    double end = 0;
    while ((end = TimeOfRecord("Waiting for signals")) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const long before = StatusFigure(child, "voluntary_ctxt_switches:");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const Start start = {end - begin - 1000, StatusFigure(child, "VmRSS:"),
                         StatusFigure(child, "voluntary_ctxt_switches:") - before};
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return start;
}

void Measure(const char* title, int rounds) {
    std::vector<double> times;
    Start start{};
    for (int i = 0; i < rounds; ++i) {
        start = StartOnce();
        times.push_back(start.milliseconds);
    }
    std::printf("%-44s min %6.1f ms  median %6.1f ms  %ld kB resident  %ld wake-ups in a second\n",
                title, *std::min_element(times.begin(), times.end()), Median(times),
                start.residentKb, start.wakeUps);
}

}  // namespace

int main() {
    umask(022);  // others must not be able to write the module directory
    std::filesystem::create_directories("/var/log/orvmon");
    std::filesystem::create_directories("/tmp/modules");
    setenv("LD_LIBRARY_PATH", "/build/lib", 1);
    setenv("OV_MODULE_DIR", "/tmp/modules", 1);
    constexpr int kRounds = 7;
    Measure("start without a ring buffer", kRounds);
    setenv("OV_LOG_DEBUG_LEVEL", "5", 1);
    setenv("TraceFileLimit", "1", 1);
    setenv("OV_LOG_RINGBUF_WEIGHT", "1", 1);
    Measure("start with ring buffers and memory column", kRounds);
    return 0;
}
