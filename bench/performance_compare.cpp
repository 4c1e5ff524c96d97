// The values of the sampler beside the files themselves, node_exporter and sadf, in one run, under
// load made for it. A sample is taken before and after the other tool reads, so that its counters
// must be between ours; gauges may differ from both by as much as they move. Packages:
// prometheus-node-exporter, sysstat.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "base/file_io.h"
#include "base/json.h"
#include "base/unique_fd.h"
#include "bench/performance_parts.h"
#include "bench/performance_values.h"

namespace {

class Child {
  public:
    explicit Child(pid_t process) : m_process(process) {}
    ~Child() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

  private:
    pid_t m_process;
};

pid_t Spawn(std::vector<std::string> words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = -1;
    if (posix_spawn(&process, argv[0], &quiet, nullptr, argv.data(), environ) != 0) process = -1;
    posix_spawn_file_actions_destroy(&quiet);
    return process;
}

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// CPU, memory, disk and loopback, until it is killed.
pid_t StartLoad() {
    const pid_t process = fork();
    if (process != 0) return process;
    const UniqueFd udp(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in to = Loopback(9);  // nobody reads it
    const UniqueFd file(
        open("/var/tmp/performance_compare.load", O_RDWR | O_CREAT | O_TRUNC, 0600));
    for (;;) {
        std::vector<char> memory(8 << 20, 'x');
        (void)!pwrite(file.Get(), memory.data(), 1 << 20, 0);
        (void)fdatasync(file.Get());
        for (int i = 0; i < 100; ++i) {
            (void)sendto(udp.Get(), memory.data(), 1000, 0, reinterpret_cast<const sockaddr*>(&to),
                         sizeof to);
        }
        const UniqueFd tcp(socket(AF_INET, SOCK_STREAM, 0));
        (void)connect(tcp.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof to);
        usleep(2000);
    }
}

struct Pair {
    const char* ours = nullptr;
    const char* theirs = nullptr;
    double factor = 1;  // ours is theirs times this
};
// "*" is a device, the same in both.
constexpr Pair kNodeExporter[] = {
    {"core_user_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"user\"}"},
    {"core_nice_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"nice\"}"},
    {"core_system_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"system\"}"},
    {"core_idle_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"idle\"}"},
    {"core_iowait_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"iowait\"}"},
    {"core_irq_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"irq\"}"},
    {"core_softirq_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"softirq\"}"},
    {"core_steal_seconds{cpu=\"*\"}", "node_cpu_seconds_total{cpu=\"*\",mode=\"steal\"}"},
    {"core_guest_seconds{cpu=\"*\"}", "node_cpu_guest_seconds_total{cpu=\"*\",mode=\"user\"}"},
    {"core_guest_nice_seconds{cpu=\"*\"}", "node_cpu_guest_seconds_total{cpu=\"*\",mode=\"nice\"}"},
    {"interrupts", "node_intr_total"},
    {"context_switches", "node_context_switches_total"},
    {"forks", "node_forks_total"},
    {"processes_running", "node_procs_running"},
    {"processes_blocked", "node_procs_blocked"},
    {"load_1", "node_load1"},
    {"load_5", "node_load5"},
    {"load_15", "node_load15"},
    {"memory_total_bytes", "node_memory_MemTotal_bytes"},
    {"memory_free_bytes", "node_memory_MemFree_bytes"},
    {"memory_available_bytes", "node_memory_MemAvailable_bytes"},
    {"memory_buffers_bytes", "node_memory_Buffers_bytes"},
    {"memory_cached_bytes", "node_memory_Cached_bytes"},
    {"memory_anonymous_bytes", "node_memory_AnonPages_bytes"},
    {"memory_slab_bytes", "node_memory_Slab_bytes"},
    {"memory_dirty_bytes", "node_memory_Dirty_bytes"},
    {"memory_writeback_bytes", "node_memory_Writeback_bytes"},
    {"memory_shared_bytes", "node_memory_Shmem_bytes"},
    {"memory_committed_bytes", "node_memory_Committed_AS_bytes"},
    {"memory_commit_limit_bytes", "node_memory_CommitLimit_bytes"},
    {"memory_huge_total_bytes", "node_memory_HugePages_Total", 2 << 20},
    {"memory_huge_free_bytes", "node_memory_HugePages_Free", 2 << 20},
    {"swap_total_bytes", "node_memory_SwapTotal_bytes"},
    {"swap_free_bytes", "node_memory_SwapFree_bytes"},
    {"paged_in_bytes", "node_vmstat_pgpgin", 1024},
    {"paged_out_bytes", "node_vmstat_pgpgout", 1024},
    {"swapped_in_pages", "node_vmstat_pswpin"},
    {"swapped_out_pages", "node_vmstat_pswpout"},
    {"page_faults", "node_vmstat_pgfault"},
    {"major_page_faults", "node_vmstat_pgmajfault"},
    {"oom_kills", "node_vmstat_oom_kill"},
    {"pressure_cpu_some_seconds", "node_pressure_cpu_waiting_seconds_total"},
    {"pressure_memory_some_seconds", "node_pressure_memory_waiting_seconds_total"},
    {"pressure_memory_full_seconds", "node_pressure_memory_stalled_seconds_total"},
    {"pressure_io_some_seconds", "node_pressure_io_waiting_seconds_total"},
    {"pressure_io_full_seconds", "node_pressure_io_stalled_seconds_total"},
    {"disk_reads{disk=\"*\"}", "node_disk_reads_completed_total{device=\"*\"}"},
    {"disk_writes{disk=\"*\"}", "node_disk_writes_completed_total{device=\"*\"}"},
    {"disk_discards{disk=\"*\"}", "node_disk_discards_completed_total{device=\"*\"}"},
    {"disk_flushes{disk=\"*\"}", "node_disk_flush_requests_total{device=\"*\"}"},
    {"disk_read_bytes{disk=\"*\"}", "node_disk_read_bytes_total{device=\"*\"}"},
    {"disk_written_bytes{disk=\"*\"}", "node_disk_written_bytes_total{device=\"*\"}"},
    {"disk_discarded_bytes{disk=\"*\"}", "node_disk_discarded_sectors_total{device=\"*\"}", 512},
    {"disk_read_seconds{disk=\"*\"}", "node_disk_read_time_seconds_total{device=\"*\"}"},
    {"disk_write_seconds{disk=\"*\"}", "node_disk_write_time_seconds_total{device=\"*\"}"},
    {"disk_discard_seconds{disk=\"*\"}", "node_disk_discard_time_seconds_total{device=\"*\"}"},
    {"disk_flush_seconds{disk=\"*\"}", "node_disk_flush_requests_time_seconds_total{device=\"*\"}"},
    {"disk_busy_seconds{disk=\"*\"}", "node_disk_io_time_seconds_total{device=\"*\"}"},
    {"disk_queue_seconds{disk=\"*\"}", "node_disk_io_time_weighted_seconds_total{device=\"*\"}"},
    {"disk_in_flight{disk=\"*\"}", "node_disk_io_now{device=\"*\"}"},
    {"network_received_bytes{interface=\"*\"}", "node_network_receive_bytes_total{device=\"*\"}"},
    {"network_received_packets{interface=\"*\"}",
     "node_network_receive_packets_total{device=\"*\"}"},
    {"network_received_errors{interface=\"*\"}", "node_network_receive_errs_total{device=\"*\"}"},
    {"network_received_drops{interface=\"*\"}", "node_network_receive_drop_total{device=\"*\"}"},
    {"network_transmitted_bytes{interface=\"*\"}",
     "node_network_transmit_bytes_total{device=\"*\"}"},
    {"network_transmitted_packets{interface=\"*\"}",
     "node_network_transmit_packets_total{device=\"*\"}"},
    {"network_transmitted_errors{interface=\"*\"}",
     "node_network_transmit_errs_total{device=\"*\"}"},
    {"network_transmitted_drops{interface=\"*\"}",
     "node_network_transmit_drop_total{device=\"*\"}"},
    {"tcp_segments_received", "node_netstat_Tcp_InSegs"},
    {"tcp_segments_sent", "node_netstat_Tcp_OutSegs"},
    {"tcp_segments_retransmitted", "node_netstat_Tcp_RetransSegs"},
    {"tcp_opens_active", "node_netstat_Tcp_ActiveOpens"},
    {"tcp_opens_passive", "node_netstat_Tcp_PassiveOpens"},
    {"tcp_resets_sent", "node_netstat_Tcp_OutRsts"},
    {"tcp_established", "node_netstat_Tcp_CurrEstab"},
    {"tcp_listen_overflows", "node_netstat_TcpExt_ListenOverflows"},
    {"tcp_listen_drops", "node_netstat_TcpExt_ListenDrops"},
    {"udp_datagrams_received", "node_netstat_Udp_InDatagrams"},
    {"udp_datagrams_sent", "node_netstat_Udp_OutDatagrams"},
    {"udp_errors", "node_netstat_Udp_InErrors"},
    {"filesystem_size_bytes{mount=\"*\"}", "node_filesystem_size_bytes{mountpoint=\"*\"}"},
    {"filesystem_free_bytes{mount=\"*\"}", "node_filesystem_free_bytes{mountpoint=\"*\"}"},
    {"filesystem_available_bytes{mount=\"*\"}", "node_filesystem_avail_bytes{mountpoint=\"*\"}"},
    {"filesystem_inodes{mount=\"*\"}", "node_filesystem_files{mountpoint=\"*\"}"},
    {"filesystem_inodes_free{mount=\"*\"}", "node_filesystem_files_free{mountpoint=\"*\"}"},
    {"entropy_available_bits", "node_entropy_available_bits"},
    {"descriptors_open", "node_filefd_allocated"},
    {"descriptors_limit", "node_filefd_maximum"},
};

// Of sadf -j: SECTION/FIELD, or SECTION/KEY=*/FIELD of a list. Rates, but for gauges.
constexpr Pair kSadf[] = {
    {"cpu_user_seconds", "cpu-load/cpu=all/usr", 0.01},
    {"cpu_nice_seconds", "cpu-load/cpu=all/nice", 0.01},
    {"cpu_system_seconds", "cpu-load/cpu=all/sys", 0.01},
    {"cpu_iowait_seconds", "cpu-load/cpu=all/iowait", 0.01},
    {"cpu_steal_seconds", "cpu-load/cpu=all/steal", 0.01},
    {"cpu_irq_seconds", "cpu-load/cpu=all/irq", 0.01},
    {"cpu_softirq_seconds", "cpu-load/cpu=all/soft", 0.01},
    {"cpu_idle_seconds", "cpu-load/cpu=all/idle", 0.01},
    {"forks", "process-and-context-switch/proc"},
    {"context_switches", "process-and-context-switch/cswch"},
    {"interrupts", "interrupts/intr=sum/all"},
    {"swapped_in_pages", "swap-pages/pswpin"},
    {"swapped_out_pages", "swap-pages/pswpout"},
    {"paged_in_bytes", "paging/pgpgin", 1024},
    {"paged_out_bytes", "paging/pgpgout", 1024},
    {"page_faults", "paging/fault"},
    {"major_page_faults", "paging/majflt"},
    {"memory_free_bytes", "memory/memfree", 1024},
    {"memory_available_bytes", "memory/avail", 1024},
    {"memory_buffers_bytes", "memory/buffers", 1024},
    {"memory_cached_bytes", "memory/cached", 1024},
    {"memory_committed_bytes", "memory/commit", 1024},
    {"memory_dirty_bytes", "memory/dirty", 1024},
    {"memory_anonymous_bytes", "memory/anonpg", 1024},
    {"memory_slab_bytes", "memory/slab", 1024},
    {"swap_free_bytes", "memory/swpfree", 1024},
    {"memory_huge_free_bytes", "hugepages/hugfree", 1024},
    {"descriptors_open", "kernel/file-nr"},
    {"processes_running", "queue/runq-sz"},
    {"processes_blocked", "queue/blocked"},
    {"load_1", "queue/ldavg-1"},
    {"load_5", "queue/ldavg-5"},
    {"load_15", "queue/ldavg-15"},
    {"disk_read_bytes{disk=\"*\"}", "disk/disk-device=*/rkB", 1024},
    {"disk_written_bytes{disk=\"*\"}", "disk/disk-device=*/wkB", 1024},
    {"disk_discarded_bytes{disk=\"*\"}", "disk/disk-device=*/dkB", 1024},
    {"disk_busy_seconds{disk=\"*\"}", "disk/disk-device=*/util-percent", 0.01},
    {"disk_queue_seconds{disk=\"*\"}", "disk/disk-device=*/aqu-sz"},
    {"network_received_packets{interface=\"*\"}", "net-dev/iface=*/rxpck"},
    {"network_transmitted_packets{interface=\"*\"}", "net-dev/iface=*/txpck"},
    {"network_received_bytes{interface=\"*\"}", "net-dev/iface=*/rxkB", 1024},
    {"network_transmitted_bytes{interface=\"*\"}", "net-dev/iface=*/txkB", 1024},
    {"network_received_errors{interface=\"*\"}", "net-edev/iface=*/rxerr"},
    {"network_transmitted_errors{interface=\"*\"}", "net-edev/iface=*/txerr"},
    {"network_received_drops{interface=\"*\"}", "net-edev/iface=*/rxdrop"},
    {"network_transmitted_drops{interface=\"*\"}", "net-edev/iface=*/txdrop"},
    {"tcp_opens_active", "net-tcp/active"},
    {"tcp_opens_passive", "net-tcp/passive"},
    {"tcp_segments_received", "net-tcp/iseg"},
    {"tcp_segments_sent", "net-tcp/oseg"},
    {"tcp_resets_received", "net-etcp/estres"},
    {"tcp_segments_retransmitted", "net-etcp/retrans"},
    {"tcp_resets_sent", "net-etcp/orsts"},
    {"udp_datagrams_received", "net-udp/idgm"},
    {"udp_datagrams_sent", "net-udp/odgm"},
    {"udp_errors", "net-udp/idgmerr"},
};

// All metrics of node_exporter; file systems by their mount points alone.
Values Scrape(uint16_t port) {
    const UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = Loopback(port);
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {};
    (void)WriteFully(fd.Get(), "GET /metrics HTTP/1.0\r\n\r\n");
    std::string text(4 << 20, '\0');
    text.resize(ReadFully(fd.Get(), text.data(), text.size()).count);
    Values values;
    for (size_t at = 0, end = 0; (end = text.find('\n', at)) != text.npos; at = end + 1) {
        std::string line = text.substr(at, end - at);
        const size_t blank = line.rfind(' ');
        if (!line.starts_with("node_") || blank == line.npos) continue;
        std::string name = line.substr(0, blank);
        const size_t mount = name.find("mountpoint=");
        if (mount != name.npos) name = name.substr(0, name.find('{') + 1) + name.substr(mount);
        values[name] = std::strtod(line.c_str() + blank, nullptr);
    }
    return values;
}

void CheckScrape(const Host& host, const Moment& before, const Values& theirs, const Moment& after,
                 const std::string& id, Comparison& comparison) {
    for (const Pair& pair : kNodeExporter) {
        const auto device = DeviceOf(id, pair.ours);
        if (!device || after.values.count(id) == 0) continue;
        const auto found = theirs.find(WithDevice(pair.theirs, *device));
        if (found == theirs.end()) continue;
        const double play = host.IsCounter(id) ? 0 : Play(id, before.values);
        const double first = before.values.at(id);
        const double last = after.values.at(id);
        comparison.Check("node_exporter", id, found->first, std::min(first, last) - play,
                         found->second * pair.factor, std::max(first, last) + play);
    }
}

int CompareNodeExporter(Host& host) {
    constexpr uint16_t kPort = 19100;
    const Child exporter(Spawn({"/usr/bin/prometheus-node-exporter",
                                "--web.listen-address=127.0.0.1:" + std::to_string(kPort)}));
    for (int i = 0; i < 100 && Scrape(kPort).empty(); ++i) usleep(100'000);
    Comparison comparison;
    for (int round = 0; round < 5; ++round) {
        const Moment before = host.Sample();
        const Values theirs = Scrape(kPort);
        const Moment after = host.Sample();
        for (const auto& each : before.values) {
            CheckScrape(host, before, theirs, after, each.first, comparison);
        }
    }
    return comparison.Report("node_exporter");
}

std::optional<double> FindIn(const JsonValue& statistics, const std::string& path) {
    const size_t slash = path.find('/');
    const size_t last = path.rfind('/');
    const std::string section = path.substr(0, slash);
    const JsonValue* value = statistics.Find(section);
    const JsonValue* const network = statistics.Find("network");
    if (value == nullptr && network != nullptr) value = network->Find(section);
    if (value != nullptr && last != slash) {
        const std::string select = path.substr(slash + 1, last - slash - 1);
        const size_t equals = select.find('=');
        const JsonValue* element = nullptr;
        for (const JsonValue& one : value->elements) {
            if (one.TextOf(select.substr(0, equals)) == select.substr(equals + 1)) element = &one;
        }
        value = element;
    }
    if (value != nullptr) value = value->Find(path.substr(last + 1));
    if (value == nullptr || value->kind != JsonValue::kNumber) return std::nullopt;
    return std::strtod(value->text.c_str(), nullptr);
}

off_t SizeOf(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 ? status.st_size : 0;
}

// The second of the statistics in the file.
std::optional<JsonValue> ReadSadf(const char* path) {
    FILE* const pipe = popen((std::string("sadf -j ") + path + " -- -A").c_str(), "r");
    std::string text(4 << 20, '\0');
    text.resize(fread(text.data(), 1, text.size(), pipe));
    (void)pclose(pipe);
    std::string fault;
    auto document = ParseJson(text, fault, 16);
    if (!document) {
        std::printf("sadf: %s\n", fault.c_str());
        return std::nullopt;
    }
    const JsonValue* hosts = document->Find("sysstat")->Find("hosts");
    return hosts->elements.front().Find("statistics")->elements.back();
}

// Samples until sadc has written again: the last before it began, and the first after.
void AwaitSadc(Host& host, const char* path, Moment& before, Moment& after) {
    const off_t size = SizeOf(path);
    Moment samples[4];
    for (size_t i = 0;; ++i) {
        samples[i % 4] = host.Sample();
        if (SizeOf(path) != size) {
            usleep(50'000);  // it writes in parts
            before = samples[(i + 1) % 4];
            after = host.Sample();
            return;
        }
        usleep(20'000);
    }
}

// `moments`: before and after sadc's first statistics, before and after its second.
void CheckStatistics(const Host& host, const std::array<Moment, 4>& moments,
                     const JsonValue& statistics, const std::string& id, Comparison& comparison) {
    for (const Pair& pair : kSadf) {
        const auto device = DeviceOf(id, pair.ours);
        if (!device) continue;
        const std::string name = WithDevice(pair.theirs, *device);
        auto theirs = FindIn(statistics, name);
        if (!theirs) continue;
        *theirs *= pair.factor;
        double numbers[4];
        for (size_t i = 0; i < 4; ++i) numbers[i] = moments[i].values.at(id);
        if (!host.IsCounter(id)) {
            const double play = Play(id, moments[2].values);
            comparison.Check("sadf", id, name, std::min(numbers[2], numbers[3]) - play, *theirs,
                             std::max(numbers[2], numbers[3]) + play);
            continue;
        }
        double rounding = 0.01 * pair.factor * 2;
        // sadf takes the sum of the processors' whole ticks.
        if (id.starts_with("cpu_")) {
            const auto processors = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
            *theirs *= processors;
            rounding += processors / static_cast<double>(sysconf(_SC_CLK_TCK));
        }
        const double longest = moments[3].seconds - moments[0].seconds;
        const double shortest = moments[2].seconds - moments[1].seconds;
        comparison.Check("sadf", id, name, (numbers[2] - numbers[1]) / longest - rounding, *theirs,
                         (numbers[3] - numbers[0]) / shortest + rounding);
    }
}

int CompareSadf(Host& host) {
    const char* const path = "/tmp/performance_compare.sadc";
    unlink(path);
    std::array<Moment, 4> moments;
    moments[0] = host.Sample();
    const Child sadc(Spawn({"/usr/lib/sysstat/sadc", "-S", "XALL", "2", "2", path}));
    while (SizeOf(path) == 0) usleep(1000);
    usleep(50'000);
    moments[1] = host.Sample();
    AwaitSadc(host, path, moments[2], moments[3]);
    usleep(300'000);
    const auto statistics = ReadSadf(path);
    if (!statistics) return 1;
    Comparison comparison;
    for (const auto& each : moments[0].values) {
        CheckStatistics(host, moments, *statistics, each.first, comparison);
    }
    return comparison.Report("sadf");
}

}  // namespace

int CompareValues() {
    const Child load(StartLoad());
    Host host;
    (void)host.Sample();
    const int files = CompareFiles(host);
    const int nodeExporter = CompareNodeExporter(host);
    return CompareSadf(host) + nodeExporter + files;
}
