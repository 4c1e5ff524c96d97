#include "switch_library/live_threads.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

ThreadList::ThreadList()
    : m_directory(open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), m_entries{} {}

pid_t ThreadList::Next() {
    for (;;) {
        if (m_position == m_size) {
            m_position = 0;
            m_size = getdents64(m_directory.Get(), m_entries.data(), m_entries.size());
            if (m_size <= 0) return static_cast<pid_t>(m_size);
        }
        const auto* entry = reinterpret_cast<const dirent64*>(m_entries.data() + m_position);
        m_position += entry->d_reclen;
        const auto thread =
            static_cast<pid_t>(std::strtol(static_cast<const char*>(entry->d_name), nullptr, 10));
        if (thread > 0) return thread;  // "." and ".." are none
    }
}

ThreadIds LiveThreads() {
    ThreadIds threads;
    ThreadList list;
    for (pid_t thread = list.Next(); thread > 0; thread = list.Next()) threads.push_back(thread);
    std::sort(threads.begin(), threads.end());
    return threads;
}

ThreadIds Without(const ThreadIds& threads, const ThreadIds& others) {
    ThreadIds rest;
    std::set_difference(threads.begin(), threads.end(), others.begin(), others.end(),
                        std::back_inserter(rest));
    return rest;
}

void AwaitOnly(const ThreadIds& known) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        ThreadList list;
        pid_t thread = list.Next();
        while (thread > 0 && std::binary_search(known.begin(), known.end(), thread)) {
            thread = list.Next();
        }
        if (thread <= 0) return;
        usleep(10'000);
    }
}

std::array<char, 16> ThreadName(pid_t thread) {
    std::array<char, 64> path{};
    std::snprintf(path.data(), path.size(), "/proc/self/task/%d/comm", thread);
    std::array<char, 16> name{};
    const UniqueFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
    if (read(file.Get(), name.data(), name.size() - 1) < 0) name[0] = '\0';
    name[std::strcspn(name.data(), "\n")] = '\0';
    return name;
}
