#include "performance/process_source.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "base/unique_fd.h"
#include "performance/source.h"
#include "performance/text_cursor.h"

namespace {

constexpr size_t kMostProcesses = 10;

// As the start of a process is counted: suspended time included.
uint64_t TicksSinceBoot() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const auto perSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    return static_cast<uint64_t>(now.tv_sec) * perSecond +
           static_cast<uint64_t>(now.tv_nsec) * perSecond / 1'000'000'000;
}

// The text of PID/FILE; empty when the process ended meanwhile.
template <size_t kSize>
std::string_view ReadOf(int directory, const char* pid, const char* file, char (&text)[kSize]) {
    char path[32];
    std::snprintf(path, sizeof path, "%s/%s", pid, file);
    const UniqueFd fd(openat(directory, path, O_RDONLY | O_CLOEXEC));
    const ssize_t count = fd.IsOpen() ? read(fd.Get(), text, kSize) : -1;
    return {text, count > 0 ? static_cast<size_t>(count) : 0};
}

}  // namespace

bool ProcessSource::Read(const char* pid, Process& process) {
    char buffer[1024];
    const std::string_view text = ReadOf(dirfd(m_directory.get()), pid, "stat", buffer);
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (close == text.npos || open >= close) return false;
    const std::string_view name = text.substr(open + 1, close - open - 1);
    process.nameLength = static_cast<uint8_t>(name.copy(process.name, sizeof process.name));

    // Numbers by their place in the line, of which the first after the name is the third.
    TextCursor cursor(text.substr(close + 1));
    constexpr int kUserTime = 14;
    constexpr int kStart = 22;
    constexpr int kResident = 24;
    uint64_t system = 0;
    for (int place = 3; place < kUserTime; ++place) (void)cursor.Word();
    if (!cursor.Number(process.ticks) || !cursor.Number(system)) return false;
    process.ticks += system;
    for (int place = kUserTime + 2; place < kStart; ++place) (void)cursor.Word();
    if (!cursor.Number(process.start)) return false;
    for (int place = kStart + 1; place < kResident; ++place) (void)cursor.Word();
    if (!cursor.Number(process.resident)) return false;
    process.resident *= static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    m_isIoHidden = !ReadIo(pid, process) || m_isIoHidden;
    return true;
}

bool ProcessSource::ReadIo(const char* pid, Process& process) {
    char buffer[512];
    errno = 0;
    const std::string_view text = ReadOf(dirfd(m_directory.get()), pid, "io", buffer);
    for (TextCursor cursor(text); !cursor.AtEnd(); cursor.NextLine()) {
        uint64_t bytes = 0;
        const bool isDisk = cursor.Skip("read_bytes:") || cursor.Skip("write_bytes:");
        if (isDisk && cursor.Number(bytes)) process.bytes += bytes;
    }
    return errno != EACCES;
}

// Both lists are ordered, so that `before` only moves on.
void ProcessSource::AddDifference(Process& process, size_t& before) const {
    while (before < m_before.size() && m_before[before].pid < process.pid) ++before;
    const bool isKnown = before < m_before.size() && m_before[before].pid == process.pid &&
                         m_before[before].start == process.start;
    // One that is older than the sample before, and was not seen then, says nothing of this period.
    if (!isKnown && process.start < m_lastTicks) return;
    const Process none{};
    const Process& last = isKnown ? m_before[before] : none;
    process.cpu = process.ticks - std::min(process.ticks, last.ticks);
    process.io = process.bytes - std::min(process.bytes, last.bytes);
}

void ProcessSource::AddTop(const char* what, uint64_t Process::*use, int64_t period) {
    m_order.clear();
    for (const Process& process : m_now) {
        if (process.*use != 0) m_order.push_back(&process);
    }
    const size_t count = std::min(kMostProcesses, m_order.size());
    std::partial_sort(m_order.begin(), m_order.begin() + static_cast<long>(count), m_order.end(),
                      [&](const Process* a, const Process* b) { return a->*use > b->*use; });
    for (size_t i = 0; i < count; ++i) {
        const Process& process = *m_order[i];
        char line[128];
        int length = std::snprintf(line, sizeof line, "%s %zu %lld ", what, i + 1,
                                   static_cast<long long>(process.pid));
        m_lines.append(line, static_cast<size_t>(length));
        for (const char letter : process.Name()) {
            m_lines += static_cast<unsigned char>(letter) < ' ' ? '?' : letter;
        }
        const auto value = static_cast<double>(process.*use);
        const double seconds = static_cast<double>(period) / static_cast<double>(kSecondNs);
        if (use == &Process::cpu) {
            const auto ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
            length =
                std::snprintf(line, sizeof line, " %.1f\n", value * 100 / ticksPerSecond / seconds);
        } else {
            length = std::snprintf(line, sizeof line, " %.0f\n",
                                   use == &Process::io ? value / seconds : value);
        }
        m_lines.append(line, static_cast<size_t>(length));
    }
}

void ProcessSource::Sample(int64_t now) {
    m_lines.clear();
    if (m_directory == nullptr) m_directory.reset(opendir("/proc"));
    m_error = m_directory == nullptr ? errno : 0;
    if (m_error != 0) return;
    const uint64_t begin = TicksSinceBoot();
    rewinddir(m_directory.get());
    m_now.clear();
    m_isIoHidden = false;
    size_t before = 0;
    while (const dirent* entry = readdir(m_directory.get())) {
        const char* const end = entry->d_name + std::strlen(entry->d_name);
        Process process;
        const auto [rest, error] = std::from_chars(entry->d_name, end, process.pid);
        if (rest != end || error != std::errc() || !Read(entry->d_name, process)) continue;
        AddDifference(process, before);
        m_now.push_back(process);
    }
    if (m_last != 0) AddTop("cpu", &Process::cpu, now - m_last);
    AddTop("memory", &Process::resident, 1);
    if (m_last != 0) AddTop("io", &Process::io, now - m_last);
    m_last = now;
    m_lastTicks = begin;
    m_before.swap(m_now);
}

void ProcessSource::AddNotes(std::vector<std::string>& notes) const {
    if (m_error != 0)
        notes.push_back(std::string("/proc: ") + std::strerror(m_error) + ": no processes");
    if (m_isIoHidden) {
        notes.emplace_back(
            "/proc/PID/io: Permission denied: no input and output of processes of others");
    }
}
