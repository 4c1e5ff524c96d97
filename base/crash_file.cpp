#include "base/crash_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "base/file_io.h"
#include "base/json.h"
#include "base/paths.h"
#include "base/text.h"

namespace {

constexpr size_t kMostLines = 100;
constexpr size_t kMostBytes = size_t{1} << 20;
constexpr size_t kCrashesToHold = 3;
constexpr int64_t kWindowMs = 600'000;

// A character of the line stands for a byte: what is quoted may be no UTF-8.
std::string BytesOf(std::string_view text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto first = static_cast<unsigned char>(text[i]);
        if (first < 0x80 || i + 1 == text.size()) {
            bytes += text[i];
        } else {
            bytes += static_cast<char>((first << 6) | (text[++i] & 0x3f));
        }
    }
    return bytes;
}

std::string Quoted(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) text += static_cast<char>(0xc0 | (byte >> 6));
        text += byte >= 0x80 ? static_cast<char>(0x80 | (byte & 0x3f)) : c;
    }
    return JsonQuoted(text);
}

int64_t ParseTime(std::string_view text) {
    std::tm time{};
    int milliseconds = 0;
    if (std::sscanf(std::string(text).c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &time.tm_year, &time.tm_mon,
                    &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec, &milliseconds) != 7) {
        return 0;
    }
    time.tm_year -= 1900;
    time.tm_mon -= 1;
    return int64_t{timegm(&time)} * 1000 + milliseconds;
}

std::string TimeNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm time{};
    gmtime_r(&now.tv_sec, &time);
    std::array<char, 64> text{};
    const size_t end = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &time);
    std::snprintf(text.data() + end, text.size() - end, ".%03ldZ", now.tv_nsec / 1'000'000);
    return text.data();
}

std::optional<CrashRecord> ParseLine(std::string_view line) {
    std::string fault;
    const auto value = ParseJson(line, fault);
    if (!value) return std::nullopt;
    CrashRecord crash;
    crash.time = ParseTime(value->TextOf("time"));
    crash.enabled = BytesOf(value->TextOf("enabled"));
    crash.isIsolated = value->Find("isolated") != nullptr;
    crash.process = value->NumberOf("process").value_or(0);
    crash.signal = value->NumberOf("signal").value_or(0);
    crash.name = value->TextOf("name");
    crash.address = value->TextOf("address");
    crash.sender = value->NumberOf("sender").value_or(0);
    crash.thread = value->NumberOf("thread").value_or(0);
    crash.threadName = BytesOf(value->TextOf("threadName"));
    crash.module = BytesOf(value->TextOf("module"));
    if (const JsonValue* const frames = value->Find("frames")) {
        std::transform(frames->elements.begin(), frames->elements.end(),
                       std::back_inserter(crash.frames),
                       [](const JsonValue& frame) { return BytesOf(frame.text); });
    }
    const bool isOne = crash.time != 0 && (crash.signal != 0 || !crash.enabled.empty());
    return isOne ? std::optional(std::move(crash)) : std::nullopt;
}

bool Counts(const CrashRecord& crash, std::string_view module) {
    const bool isSent = crash.sender != 0 && crash.sender != crash.process;
    return crash.module == module && !crash.isIsolated && !isSent;
}

// Those of the module that count, since it was brought back.
std::vector<int64_t> CrashTimes(const std::vector<CrashRecord>& crashes, std::string_view module) {
    std::vector<int64_t> times;
    for (const CrashRecord& crash : crashes) {
        if (crash.enabled == module) times.clear();
        if (Counts(crash, module)) times.push_back(crash.time);
    }
    return times;
}

// Whoever may read it could lock it, and the daemon would wait at its start.
constexpr mode_t kMode = 0600;

// Nobody but the daemon's user may have a part in it.
UniqueFd Open(int flags) {
    UniqueFd file = OpenRegularFile(kCrashFile, flags | O_NOFOLLOW, kMode);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return UniqueFd();
    const bool isSafe = (status.st_uid == 0 || status.st_uid == geteuid()) &&
                        (status.st_mode & 022) == 0 && status.st_nlink == 1;
    if (isSafe) return file;
    errno = EPERM;
    return UniqueFd();
}

// While it is locked, the file is the one of that name.
UniqueFd OpenLocked(int flags) {
    for (;;) {
        UniqueFd file = Open(flags);
        if (!file.IsOpen() || flock(file.Get(), LOCK_EX) != 0) return UniqueFd();
        struct stat mine {
        }, named{};
        if (fstat(file.Get(), &mine) != 0) return UniqueFd();
        const bool isThere = lstat(kCrashFile, &named) == 0;
        if (isThere && mine.st_ino == named.st_ino && mine.st_dev == named.st_dev) return file;
    }
}

std::optional<std::string> ReadAll(const UniqueFd& file) {
    struct stat status {};
    if (fstat(file.Get(), &status) != 0) return std::nullopt;
    std::string text(std::min(static_cast<size_t>(status.st_size), 2 * kMostBytes), '\0');
    const ReadResult result = ReadFullyAt(file.Get(), text.data(), text.size(), 0);
    errno = result.error;
    if (result.error != 0) return std::nullopt;
    text.resize(result.count);
    return text;
}

// The newest of the module that count, as many as hold it back.
bool IsNeeded(const std::vector<CrashRecord>& all, const CrashRecord& crash) {
    const std::vector<int64_t> times = CrashTimes(all, crash.module);
    const size_t first = times.size() - std::min(times.size(), kCrashesToHold);
    return Counts(crash, crash.module) && !crash.module.empty() &&
           std::find(times.begin() + static_cast<ptrdiff_t>(first), times.end(), crash.time) !=
               times.end();
}

// Empty when nothing is to be dropped.
std::string Shortened(std::string_view text) {
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    if (lines <= kMostLines && text.size() <= kMostBytes) return {};
    const std::vector<CrashRecord> all = ParseCrashes(text);
    std::string kept;
    for (size_t i = 0; i < lines; ++i) {
        const std::string_view line = TakeLine(text);
        const auto crash = ParseLine(line);
        const bool isNew = i + kMostLines >= lines;
        if (crash && (isNew || IsNeeded(all, *crash))) kept.append(line) += '\n';
    }
    return kept;
}

// The file is there whole, as it was or shortened.
bool Replace(const std::string& text) {
    const std::string name = std::string(kCrashFile) + ".new";
    (void)unlink(name.c_str());
    const UniqueFd file =
        OpenRegularFile(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kMode);
    if (file.IsOpen() && WriteFully(file.Get(), text) && fsync(file.Get()) == 0 &&
        rename(name.c_str(), kCrashFile) == 0) {
        return true;
    }
    const int saved = errno;
    (void)unlink(name.c_str());
    errno = saved;
    return false;
}

// Begins a line of its own after one that was cut.
bool Append(std::string line, size_t limit) {
    const UniqueFd file = OpenLocked(O_RDWR | O_CREAT | O_APPEND);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return false;
    char last = '\n';
    if (status.st_size > 0) (void)ReadFullyAt(file.Get(), &last, 1, status.st_size - 1);
    if (last != '\n') line.insert(0, 1, '\n');
    errno = EFBIG;
    return static_cast<size_t>(status.st_size) <= limit && WriteFully(file.Get(), line);
}

}  // namespace

std::vector<CrashRecord> ParseCrashes(std::string_view text) {
    std::vector<CrashRecord> crashes;
    while (!text.empty()) {
        if (auto crash = ParseLine(TakeLine(text))) crashes.push_back(std::move(*crash));
    }
    return crashes;
}

std::optional<std::vector<CrashRecord>> ReadCrashes() {
    const UniqueFd file = Open(O_RDONLY);
    if (!file.IsOpen() && errno == ENOENT) return std::vector<CrashRecord>();
    const auto text = file.IsOpen() ? ReadAll(file) : std::nullopt;
    return text ? std::optional(ParseCrashes(*text)) : std::nullopt;
}

std::string CrashFileFault(int error) {
    const std::string shown = std::string(kCrashFile) + ": ";
    if (error != EPERM && error != ELOOP) return shown + std::strerror(error);
    return shown + "not used, because it is a link, or others than root may write it; remove it";
}

UniqueFd OpenCrashFile() {
    const UniqueFd present = OpenLocked(O_RDWR | O_CREAT);
    const auto text = present.IsOpen() ? ReadAll(present) : std::nullopt;
    if (!text) return UniqueFd();
    const std::string shortened = Shortened(*text);
    if (!shortened.empty() && !Replace(shortened)) return UniqueFd();
    // A line that a power cut left without its end.
    const bool isCut = shortened.empty() && !text->empty() && text->back() != '\n';
    if (isCut && !WriteFullyAt(present.Get(), "\n", static_cast<off_t>(text->size()))) {
        return UniqueFd();
    }
    UniqueFd file = Open(O_WRONLY | O_APPEND);
    file.Reset(KeepHigh(file.Release()));
    return file;
}

bool AppendIsolatedCrash(std::string_view line) {
    std::string marked = "{\"isolated\":true,";
    if (line.starts_with('{')) marked.append(line.substr(1, line.find('\n')));
    const std::optional<CrashRecord> crash = ParseLine(marked);
    if (!crash || !crash->enabled.empty() || !marked.ends_with('\n')) {
        errno = EINVAL;
        return false;
    }
    return Append(marked, kMostBytes);
}

bool AppendEnabled(const std::string& module) {
    return Append("{\"time\":\"" + TimeNow() + "\",\"enabled\":" + Quoted(module) + "}\n",
                  SIZE_MAX);
}

bool IsHeldBack(const std::vector<CrashRecord>& crashes, std::string_view module,
                bool isRestarted) {
    const std::vector<int64_t> times = CrashTimes(crashes, module);
    const size_t most = isRestarted ? kCrashesToHold : 1;
    for (size_t i = most; i <= times.size(); ++i) {
        if (times[i - 1] - times[i - most] <= kWindowMs) return true;
    }
    return false;
}
