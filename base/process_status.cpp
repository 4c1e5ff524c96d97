#include "kemd/process_status.h"

#include <dirent.h>
#include <fcntl.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <utility>

#include "base/cancel_guard.h"
#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/text.h"
#include "base/unique_fd.h"

namespace {

std::string_view TakeWord(std::string_view& text) {
    text = TrimStart(text);
    const std::string_view word = text.substr(0, text.find_first_of(kSpaces));
    text.remove_prefix(word.size());
    return word;
}

uint64_t ParseBytes(std::string_view text) {
    const std::string_view number = TakeWord(text);
    uint64_t value = 0;
    std::from_chars(number.data(), number.data() + number.size(), value);
    const std::string_view unit = TakeWord(text);
    if (unit == "kB") return value << 10;
    if (unit == "MB") return value << 20;
    if (unit == "GB") return value << 30;
    return value;
}

void ReadStatusBytes(pid_t pid, uint64_t& value, std::string_view key) {
    std::array<char, 32> path = {"/proc/"};
    constexpr size_t kPidOffset = 6;
    char* const end = std::to_chars(path.data() + kPidOffset, path.data() + path.size(), pid).ptr;
    std::memcpy(end, "/status", sizeof("/status"));
    const UniqueFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) return;

    SmallLineReader lines(file.Get());
    std::string_view line;
    bool isStart = true;  // of a line: a process may have more groups than a fragment holds
    while (lines.Next(line)) {
        if (!std::exchange(isStart, line.ends_with('\n')) || TakeWord(line) != key) continue;
        value = ParseBytes(line);
        return;
    }
}

}  // namespace

void ReadProcStatusValue(pid_t pid, uint64_t& value, std::string_view key, uint32_t scaleSteps) {
    const CancelGuard guard;
    ReadStatusBytes(pid, value, key);
    constexpr uint32_t kStepsToZero = 7;  // 7 x 10 bits empty a 64-bit number
    value = scaleSteps >= kStepsToZero ? 0 : value >> (10 * scaleSteps);
}

bool GetProcessMemoryInfo(pid_t pid, ProcessMemoryInfo& info) {
    const CancelGuard guard;
    info = {};
    uint64_t shared = 0;
    ReadStatusBytes(pid, info.peak, "VmPeak:");
    ReadStatusBytes(pid, info.size, "VmSize:");
    ReadStatusBytes(pid, info.swap, "VmSwap:");
    ReadStatusBytes(pid, shared, "VmLib:");
    info.sizeLessShared = info.size - shared;
    return info.peak != 0 && info.size != 0;
}

bool FindProcessByName(int32_t& pid, const char* name) try {
    const CancelGuard guard;
    pid = -1;
    const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    if (!proc || name == nullptr) return false;
    while (const dirent* entry = readdir(proc.get())) {
        const auto candidate = static_cast<int32_t>(std::strtol(entry->d_name, nullptr, 10));
        std::string command;
        if (candidate < 1 || !ReadProcFileLine(candidate, "comm", command)) continue;
        if (command != name) continue;
        pid = candidate;
        return true;
    }
    return false;
} catch (const std::exception&) {
    return false;
}

bool GetProcessExePath(std::string& path, pid_t pid) try {
    const CancelGuard guard;
    path.clear();
    std::array<char, 4096> target{};
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    if (length > 0) path.assign(target.data(), static_cast<size_t>(length));
    return length > 0;
} catch (const std::exception&) {
    return false;
}

bool ReadProcFileLine(pid_t pid, const char* fileName, std::string& text) try {
    const CancelGuard guard;
    text.clear();
    if (fileName == nullptr) return false;
    const auto file = ReadTextFile("/proc/" + std::to_string(pid) + "/" + fileName);
    if (!file || file->empty()) return false;
    std::string_view rest = *file;
    text = TakeLine(rest);
    return true;
} catch (const std::exception&) {
    return false;
}
