#include "live_threads.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

ThreadIds LiveThreads() {
    ThreadIds threads;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir("/proc/self/task"), closedir);
    if (!entries) return threads;
    while (const dirent* entry = readdir(entries.get())) {
        const auto thread = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (thread > 0) threads.push_back(thread);
    }
    std::sort(threads.begin(), threads.end());
    return threads;
}

ThreadIds Without(const ThreadIds& threads, const ThreadIds& others) {
    ThreadIds rest;
    std::set_difference(threads.begin(), threads.end(), others.begin(), others.end(),
                        std::back_inserter(rest));
    return rest;
}

void AwaitEnd(const ThreadIds& threads) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        const ThreadIds now = LiveThreads();
        if (Without(threads, now).size() == threads.size()) return;
        usleep(10'000);
    }
}

std::string ThreadName(pid_t thread) {
    std::string name;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) + "/comm"), name);
    return name;
}
