#include "module_host/isolated_trace.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>

#include "base/cancel_guard.h"
#include "base/crash_line.h"
#include "base/isolated_protocol.h"
#include "trace/debug.h"
#include "trace/record.h"

namespace {

constexpr size_t kMostTag = 128;

std::atomic<int> g_pipe{-1};
std::atomic<const char*> g_ownTag{"kemd"};

void ForgetPipe() {
    g_pipe = -1;
}

// A pipe takes what is no longer than PIPE_BUF whole, from any thread, and it is in the pipe
// whatever happens to this process then. It blocks while the daemon is slow: nothing is lost.
void PassOn(const char* tag, unsigned level, const char* format, va_list args) {
    const int pipe = g_pipe.load(std::memory_order_relaxed);
    if (pipe < 0 || format == nullptr) return;
    const int error = errno;
    const CancelGuard guard;
    if (tag == nullptr) tag = g_ownTag;
    IsolatedRecord head{};
    head.kind = level == 0 ? IsolatedRecordKind::kMessage : IsolatedRecordKind::kTrace;
    head.level = static_cast<uint8_t>(std::min(level, 255U));
    head.thread = static_cast<uint32_t>(pthread_self());
    head.tagSize = static_cast<uint16_t>(strnlen(tag, kMostTag));
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): hot path
    std::array<char, PIPE_BUF> record;
    const size_t start = sizeof head + head.tagSize;
    const size_t room = record.size() - start;
    errno = error;  // for %m
    const int length = FormatTraceText(record.data() + start, room, SkipLineFeeds(format), args);
    if (length >= 0) {
        const size_t size = start + std::min(static_cast<size_t>(length), room - 1);
        head.size = static_cast<uint16_t>(size);
        std::memcpy(record.data(), &head, sizeof head);
        std::memcpy(record.data() + sizeof head, tag, head.tagSize);
        (void)TEMP_FAILURE_RETRY(write(pipe, record.data(), size));
    }
    errno = error;
}

}  // namespace

void TraceToDaemon(UniqueFd pipe, const uint32_t* level) {
    g_pipe = pipe.Release();  // for the rest of the process
    (void)pthread_atfork(nullptr, nullptr, ForgetPipe);
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof *level &&
                  std::atomic<uint32_t>::is_always_lock_free);
    Debug.Redirect({PassOn, reinterpret_cast<const std::atomic<uint32_t>*>(level)});
}

void SetOwnTag(const char* tag) {
    g_ownTag = tag;
}

// In a signal handler. Most modules do not look at what malloc returns.
static bool IsMemoryUsedUp() {
    constexpr size_t kLittle = size_t{2} << 20;
    rlimit limit{};
    if (getrlimit(RLIMIT_DATA, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return false;
    void* const memory =
        mmap(nullptr, kLittle, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return true;
    (void)munmap(memory, kLittle);
    return false;
}

// In a signal handler.
static void WriteMessage(std::string_view text) {
    static std::array<char, 256> record;
    const char* const tag = g_ownTag;
    IsolatedRecord head{};
    head.kind = IsolatedRecordKind::kMessage;
    head.thread = static_cast<uint32_t>(pthread_self());
    head.tagSize = static_cast<uint16_t>(strnlen(tag, kMostTag));
    const size_t start = sizeof head + head.tagSize;
    head.size =
        static_cast<uint16_t>(start + text.copy(record.data() + start, record.size() - start));
    std::memcpy(record.data(), &head, sizeof head);
    std::memcpy(record.data() + sizeof head, tag, head.tagSize);
    (void)!write(g_pipe, record.data(), head.size);
}

void WriteCrash(std::string_view line) {
    static std::array<char, PIPE_BUF> record;
    static_assert(sizeof(IsolatedRecord) + kMostCrashLine <= record.size());
    IsolatedRecord head{};
    head.kind = IsolatedRecordKind::kCrash;
    head.size = static_cast<uint16_t>(sizeof head + std::min(line.size(), kMostCrashLine));
    std::memcpy(record.data(), &head, sizeof head);
    std::memcpy(record.data() + sizeof head, line.data(), head.size - sizeof head);
    (void)!write(g_pipe, record.data(), head.size);
    if (IsMemoryUsedUp()) WriteMessage("little memory was left within MemoryLimit when it crashed");
}

const char* CalledModule() {
    return gettid() == getpid() ? g_ownTag.load() : nullptr;
}
