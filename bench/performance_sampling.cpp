// What a sample costs at a period of 1 s, when the caches are cold: CPU time of the whole process,
// in turns with bare preads of the same files, a third of a second apart; sadc beside them. Then
// made files of large machines, in a loop.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/unique_fd.h"
#include "bench/measure.h"
#include "bench/performance_parts.h"
#include "performance/sampler.h"
#include "tests/performance/made_files.h"

namespace {

// Those that the sampler holds open, and /proc/net/dev for the interfaces.
constexpr const char* kFiles[] = {
    "/proc/stat",           "/proc/meminfo",      "/proc/vmstat",
    "/proc/loadavg",        "/proc/pressure/cpu", "/proc/pressure/memory",
    "/proc/pressure/io",    "/proc/diskstats",    "/proc/sys/kernel/random/entropy_avail",
    "/proc/sys/fs/file-nr", "/proc/net/snmp",     "/proc/net/netstat",
    "/proc/net/dev",
};

double CpuMicroseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

class BareReads {
  public:
    BareReads() {
        for (const char* path : kFiles) {
            UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
            if (fd.IsOpen()) m_files.push_back(std::move(fd));
        }
    }
    void Read() {
        for (const UniqueFd& fd : m_files) (void)!pread(fd.Get(), m_buffer, sizeof m_buffer, 0);
    }
    [[nodiscard]] size_t Count() const { return m_files.size(); }

  private:
    std::vector<UniqueFd> m_files;
    char m_buffer[64 << 10] = {};
};

size_t UsedSeries(const SeriesTable& table) {
    size_t used = 0;
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) used += table.IsUsed(i) ? 1 : 0;
    return used;
}

// sadc, once a second.
class Sadc {
  public:
    Sadc() {
        std::string program = "/usr/lib/sysstat/sadc";
        std::string arguments[] = {program, "-S", "DISK", "1", "/tmp/sadc.bench"};
        char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                        arguments[3].data(), arguments[4].data(), nullptr};
        unlink(argv[4]);
        if (posix_spawn(&m_process, argv[0], nullptr, nullptr, argv, environ) != 0) m_process = -1;
    }
    ~Sadc() {
        if (m_process < 0) return;
        kill(m_process, SIGINT);
        waitpid(m_process, nullptr, 0);
    }
    Sadc(const Sadc&) = delete;
    Sadc& operator=(const Sadc&) = delete;
    // Since it began; NaN without sadc.
    [[nodiscard]] double Microseconds() const {
        std::ifstream file("/proc/" + std::to_string(m_process) + "/schedstat");
        double nanoseconds = NAN;
        return file >> nanoseconds ? nanoseconds / 1e3 : NAN;
    }

  private:
    pid_t m_process = -1;
};

long ResidentKb(const char* key) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key)) return std::atol(line.c_str() + std::strlen(key) + 1);
    }
    return 0;
}

void Pause() {
    const timespec third = {0, 333'000'000};
    nanosleep(&third, nullptr);
}

}  // namespace

int MeasureSampling(int seconds) {
    BareReads bare;
    Sampler sampler({.processes = false});
    Sampler withProcesses({.processes = true});
    SeriesTable table;
    SeriesTable other;
    sampler.Sample(table);
    withProcesses.Sample(other);
    bare.Read();
    Sadc sadc;
    std::vector<double> samples;
    std::vector<double> reads;
    std::vector<double> processes;
    Pause();
    const double sadcBegin = sadc.Microseconds();
    for (int i = 0; i < seconds; ++i) {
        // The worker's thread has until the next turn.
        double begin = CpuMicroseconds(CLOCK_PROCESS_CPUTIME_ID);
        sampler.Sample(table);
        Pause();
        samples.push_back(CpuMicroseconds(CLOCK_PROCESS_CPUTIME_ID) - begin);
        begin = CpuMicroseconds(CLOCK_PROCESS_CPUTIME_ID);
        bare.Read();
        Pause();
        reads.push_back(CpuMicroseconds(CLOCK_PROCESS_CPUTIME_ID) - begin);
        begin = CpuMicroseconds(CLOCK_PROCESS_CPUTIME_ID);
        withProcesses.Sample(other);
        Pause();
        processes.push_back(CpuMicroseconds(CLOCK_PROCESS_CPUTIME_ID) - begin);
    }
    const double sadcTime = (sadc.Microseconds() - sadcBegin) / seconds;
    const auto mean = [](const std::vector<double>& values) {
        double sum = 0;
        for (const double value : values) sum += value;
        return sum / static_cast<double>(values.size());
    };
    const auto show = [&](const char* what, const std::vector<double>& values) {
        std::printf("  %-44s median %7.1f us  mean %7.1f us  %5.2f x\n", what, Median(values),
                    mean(values), Median(values) / Median(reads));
    };
    std::printf("a sample of %zu series at 1 s, %d times\n", UsedSeries(table), seconds);
    show(("bare pread of " + std::to_string(bare.Count()) + " files").c_str(), reads);
    show("sampler", samples);
    show("sampler with processes", processes);
    std::printf("  %-44s   mean %7.1f us\n", "sadc -S DISK 1", sadcTime);
    std::printf("  resident: %ld KiB of its own, %ld KiB of files\n", ResidentKb("RssAnon:"),
                ResidentKb("RssFile:"));
    return 0;
}

namespace {

struct Machine {
    int processors;
    int disks;
};

// 0, or 1 after a complaint.
int MeasureMachine(const Machine& machine) {
    constexpr uint64_t kRounds = 50;
    MadeFiles files;
    Sampler sampler({.processes = false});
    SeriesTable table;
    std::vector<double> samples;
    std::vector<double> reads;
    samples.reserve(kRounds);
    reads.reserve(kRounds);
    size_t bytes = 0;
    double first = 0;  // which adds the series
    for (uint64_t round = 0; round <= kRounds; ++round) {
        const std::string stat = MadeStat(machine.processors, 1000 + round);
        const std::string disks = MadeDiskstats(machine.disks, 1000 + round);
        bytes = stat.size() + disks.size();
        if (!files.Write("/proc/stat", stat) || !files.Write("/proc/diskstats", disks)) {
            std::perror("made files");
            return 1;
        }
        double begin = CpuMicroseconds(CLOCK_THREAD_CPUTIME_ID);
        sampler.Sample(table);
        const double time = CpuMicroseconds(CLOCK_THREAD_CPUTIME_ID) - begin;
        if (round == 0) {
            first = time;
            continue;
        }
        samples.push_back(time);
        BareReads bare;
        begin = CpuMicroseconds(CLOCK_THREAD_CPUTIME_ID);
        bare.Read();
        reads.push_back(CpuMicroseconds(CLOCK_THREAD_CPUTIME_ID) - begin);
    }
    std::printf(
        "%3d processors, %3d disks with 2 partitions: %5zu series, %6zu bytes: first sample "
        "%7.1f us, sample %7.1f us, bare pread %6.1f us, beyond it %6.2f ns a byte\n",
        machine.processors, machine.disks, UsedSeries(table), bytes, first, Median(samples),
        Median(reads), (Median(samples) - Median(reads)) * 1000 / static_cast<double>(bytes));
    return 0;
}

}  // namespace

int MeasureMadeFiles() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("a mount table of its own");
        return 1;
    }
    for (const Machine& machine :
         {Machine{1, 2}, Machine{16, 31}, Machine{64, 125}, Machine{128, 250}, Machine{256, 500}}) {
        if (MeasureMachine(machine) != 0) return 1;
    }
    return 0;
}
