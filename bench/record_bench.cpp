// What one trace record costs, beside the least that its work can cost (the floor) and beside a
// well-known logging library. The record is a typical one of the start-up: about 100 bytes.
//
//   floor: the clock, a prefix put together by hand from a second that was formatted before, one
//          vsnprintf of the message text, one copy into a shared mapping, under a mutex.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <thread>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "bench/measure.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDirectory = "/tmp";
constexpr const char* kText = "SCAN: adapter %d answered, state %s, next poll later";

int OpenFile(const char* path) {
    return open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

// The prefix and the text of one record, as little work as possible.
class HandMade {
  public:
    size_t Build(const char* format, va_list args) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != m_second) FormatSecond(now.tv_sec);
        const auto ms = static_cast<int>(now.tv_nsec / 1'000'000);
        m_line[20] = static_cast<char>('0' + ms / 100);
        m_line[21] = static_cast<char>('0' + ms / 10 % 10);
        m_line[22] = static_cast<char>('0' + ms % 10);
        const auto thread = static_cast<uint32_t>(pthread_self());
        for (int i = 0; i < 8; ++i) {
            m_line[25 + i] = "0123456789ABCDEF"[thread >> (28 - 4 * i) & 15];
        }
        const int length = std::vsnprintf(m_line + kPrefix, 1025, format, args);
        m_line[kPrefix + length] = '\n';
        return kPrefix + static_cast<size_t>(length) + 1;
    }
    [[nodiscard]] const char* Line() const { return m_line; }
    std::mutex mutex;

  private:
    static constexpr size_t kPrefix = 49;

    void FormatSecond(time_t second) {
        tm local{};
        localtime_r(&second, &local);
        std::memset(m_line, ' ', kPrefix);
        std::strftime(m_line, 20, "%F %H:%M:%S", &local);
        std::memcpy(m_line + 19, ".000 [00000000] kemd", 20);
        m_second = second;
    }

    time_t m_second = 0;
    char m_line[1200] = {};
};

class Floor : public HandMade {
  public:
    static constexpr size_t kSize = 1 << 20;

    Floor() {
        const int fd = OpenFile("/tmp/floor");
        if (ftruncate(fd, kSize) != 0) abort();
        m_map = static_cast<char*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        std::memset(m_map, '_', kSize);
    }
    KEMD_PRINTF(2, 3) void Write(const char* format, ...) {
        const std::lock_guard lock(mutex);
        va_list args;
        va_start(args, format);
        const size_t length = Build(format, args);
        va_end(args);
        if (m_offset + length > kSize) m_offset = 0;
        std::memcpy(m_map + m_offset, Line(), length);
        m_offset += length;
    }

  private:
    char* m_map;
    size_t m_offset = 0;
};

// The least that a flushed line of a log file can cost.
class StdioLog : public HandMade {
  public:
    KEMD_PRINTF(2, 3) void Write(const char* format, ...) {
        const std::lock_guard lock(mutex);
        va_list args;
        va_start(args, format);
        Build(format, args);
        va_end(args);
        if (std::fprintf(m_file, "%s", Line()) < 0 || std::fflush(m_file) != 0) abort();
        if (std::ftell(m_file) > 51200) std::rewind(m_file);
    }

  private:
    FILE* m_file = std::fopen("/tmp/stdio", "w+e");
};

void ReadStatusFile() {
    char text[4096];
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (read(fd, text, sizeof(text)) <= 0) abort();
    close(fd);
}

void StartTrace(const char* memoryColumn) {
    setenv("OV_LOG_RINGBUF_DIR", kDirectory, 1);
    setenv("OV_LOG_DEBUG_LEVEL", "3", 1);
    setenv("TraceFileLimit", "1", 1);
    setenv("OV_LOG_RINGBUF_WEIGHT", "1", 1);
    std::filesystem::create_directories("/etc/norvik/OrvanaSuite/TraceConfig");
    FILE* file = std::fopen("/etc/norvik/OrvanaSuite/TraceConfig/kemd.ini", "we");
    if (file == nullptr) abort();
    std::fprintf(file, "[kemd]\nMemoryTracesFlag = %s\n[EndOfFile]\n", memoryColumn);
    std::fclose(file);
    if (!Debug.Init("kemd")) abort();
    Debug.InitDone();
}

void TraceRecord(int i) {
    TRACE(2, kText, i, "ready");
}

void CompareRing() {
    static Floor floor;
    auto plain = spdlog::basic_logger_mt("plain", "/tmp/spdlog.plain", true);
    auto flushed = spdlog::basic_logger_mt("flushed", "/tmp/spdlog.flushed", true);
    flushed->flush_on(spdlog::level::info);
    std::vector<Contender> contenders = {
        Make("floor", [](int i) { floor.Write(kText, i, "ready"); }),
        Make("ring-buffer record", TraceRecord),
        Make("spdlog basic_file_sink_mt, not flushed",
             [=](int i) {
                 plain->info("SCAN: adapter {} answered, state {}, next poll later", i, "ready");
             }),
        Make("spdlog basic_file_sink_mt, flushed",
             [=](int i) {
                 flushed->info("SCAN: adapter {} answered, state {}, next poll later", i, "ready");
             }),
    };
    MeasureRounds(contenders, 101, 5000);
    Report("ring-buffer record without the memory column", contenders);
    std::printf("  spdlog takes %.2f x (not flushed) and %.2f x (flushed) of the ring record\n",
                Ratio(contenders[2], contenders[1]), Ratio(contenders[3], contenders[1]));
}

void CompareMemoryColumn() {
    static Floor floor;
    std::vector<Contender> contenders = {
        Make("floor + open, read, close of the status file",
             [](int i) {
                 ReadStatusFile();
                 floor.Write(kText, i, "ready");
             }),
        Make("ring-buffer record", TraceRecord),
    };
    MeasureRounds(contenders, 101, 500);
    Report("ring-buffer record with the memory column", contenders);
}

void EmptyCall(CDebug*, unsigned, const char*, int, const char*) {}

void CompareFiltered() {
    static void (*volatile empty)(CDebug*, unsigned, const char*, int, const char*) = EmptyCall;
    // Through a pointer that the compiler cannot see through: a virtual call, as modules make it.
    static CDebug* volatile debug = &Debug;
    std::vector<Contender> contenders = {
        Make("empty call through a function pointer",
             [](int i) { empty(debug, 6, kText, i, "ready"); }),
        Make("filtered Trace", [](int i) { debug->Trace(6, kText, i, "ready"); }),
        Make("TRACE, tracing on", [](int i) { TRACE(6, kText, i, "ready"); }),
    };
    MeasureRounds(contenders, 101, 100'000);
    Report("record that the level filters out", contenders);
}

void CompareLogFile() {
    static StdioLog log;
    std::vector<Contender> contenders = {
        Make("hand-made prefix, vsnprintf, fprintf, fflush",
             [](int i) { log.Write(kText, i, "ready"); }),
        Make("log-file record", [](int i) { Debug.Message(kText, i, "ready"); }),
    };
    Debug.SetTraceTarget(kTargetLog);
    MeasureRounds(contenders, 101, 2000);
    Debug.SetTraceTarget(kTargetRing);
    Report("log-file record without the memory column", contenders);
}

void RunThreads(int threads, int count) {
    std::vector<std::thread> running;
    running.reserve(static_cast<size_t>(threads));
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([=] {
            for (int i = 0; i < count; ++i) TraceRecord(i);
        });
    }
    for (std::thread& thread : running) thread.join();
}

void CompareThreads() {
    std::vector<Contender> contenders = {
        {"one thread", [](int count) { RunThreads(1, count); }},
        {"four threads, per record", [](int count) { RunThreads(4, count / 4); }},
    };
    MeasureRounds(contenders, 51, 100'000);
    Report("threads", contenders);
    std::printf("  four threads together reach %.2f x the rate of one\n",
                Ratio(contenders[0], contenders[1]));
}

}  // namespace

int main() {
    StartTrace("0");
    CompareRing();
    CompareFiltered();
    CompareLogFile();
    CompareThreads();
    StartTrace("1");
    CompareMemoryColumn();
    return 0;
}
