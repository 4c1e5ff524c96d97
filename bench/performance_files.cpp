// The values of the sampler beside the files of /proc and /sys, read once more between two samples
// and taken apart in another way: by words.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <vector>

#include "bench/performance_values.h"

namespace {

struct Row {
    std::string ours;   // "*" is a device
    std::string path;   // may have the device as well
    std::string key;    // the word before the value's; several with "+" are added; empty: none
    size_t column = 1;  // after the key
    double factor = 1;  // ours is theirs times this
};

// What the rows of one file have in common; the series is `before`, the name, `after`.
struct Place {
    std::string before, after, path;
    double factor = 1;
    std::string key = {};  // of columns
    size_t column = 1;
};

void AddRows(std::vector<Row>& rows, const Place& place,
             const std::vector<std::pair<const char*, const char*>>& names) {
    for (const auto& [ours, key] : names) {
        const std::string series = place.before + ours;
        rows.push_back({series + place.after, place.path, key, place.column, place.factor});
    }
}

// Names that follow each other in a line; "" is not ours.
void AddColumns(std::vector<Row>& rows, const Place& place,
                const std::vector<std::pair<const char*, double>>& names) {
    size_t column = place.column;
    for (const auto& [ours, factor] : names) {
        const std::string series = place.before + ours;
        if (*ours != '\0') {
            rows.push_back({series + place.after, place.path, place.key, column, factor});
        }
        ++column;
    }
}

void AddProcessors(std::vector<Row>& rows) {
    const double tick = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    const std::vector<std::pair<const char*, double>> times = {
        {"user", tick}, {"nice", tick},    {"system", tick}, {"idle", tick},  {"iowait", tick},
        {"irq", tick},  {"softirq", tick}, {"steal", tick},  {"guest", tick}, {"guest_nice", tick}};
    AddColumns(rows, {"cpu_", "_seconds", "/proc/stat", 1, "cpu", 1}, times);
    AddColumns(rows, {"core_", "_seconds{cpu=\"*\"}", "/proc/stat", 1, "cpu*", 1}, times);
    AddRows(rows, {"", "", "/proc/stat", 1},
            {{"interrupts", "intr"},
             {"context_switches", "ctxt"},
             {"forks", "processes"},
             {"processes_running", "procs_running"},
             {"processes_blocked", "procs_blocked"}});
    AddColumns(rows, {"load_", "", "/proc/loadavg", 1, "", 0}, {{"1", 1}, {"5", 1}, {"15", 1}});
}

void AddMemory(std::vector<Row>& rows) {
    AddRows(rows, {"", "_bytes", "/proc/meminfo", 1024},
            {{"memory_total", "MemTotal"},
             {"memory_available", "MemAvailable"},
             {"memory_free", "MemFree"},
             {"memory_buffers", "Buffers"},
             {"memory_cached", "Cached"},
             {"memory_anonymous", "AnonPages"},
             {"memory_slab", "Slab"},
             {"memory_dirty", "Dirty"},
             {"memory_writeback", "Writeback"},
             {"memory_shared", "Shmem"},
             {"memory_committed", "Committed_AS"},
             {"memory_commit_limit", "CommitLimit"},
             {"swap_total", "SwapTotal"},
             {"swap_free", "SwapFree"}});
    AddRows(rows, {"memory_huge_", "_bytes", "/proc/meminfo", 2 << 20},
            {{"total", "HugePages_Total"}, {"free", "HugePages_Free"}});
    AddRows(rows, {"paged_", "_bytes", "/proc/vmstat", 1024},
            {{"in", "pgpgin"}, {"out", "pgpgout"}});
    AddRows(
        rows, {"", "", "/proc/vmstat", 1},
        {{"swapped_in_pages", "pswpin"},
         {"swapped_out_pages", "pswpout"},
         {"page_faults", "pgfault"},
         {"major_page_faults", "pgmajfault"},
         {"oom_kills", "oom_kill"},
         {"reclaimed_pages", "pgsteal_kswapd+pgsteal_direct+pgsteal_khugepaged+pgsteal_proactive"},
         {"reclaim_scanned_pages",
          "pgscan_kswapd+pgscan_direct+pgscan_khugepaged+pgscan_proactive"}});
    for (const std::string what : {"cpu", "memory", "io"}) {
        AddRows(rows, {"pressure_" + what + "_", "_seconds", "/proc/pressure/" + what, 1e-6, "", 8},
                {{"some", "some"}, {"full", "full"}});
    }
}

void AddDevices(std::vector<Row>& rows) {
    AddColumns(rows, {"disk_", "{disk=\"*\"}", "/proc/diskstats", 1, "*", 1},
               {{"reads", 1},
                {"", 1},
                {"read_bytes", 512},
                {"read_seconds", 1e-3},
                {"writes", 1},
                {"", 1},
                {"written_bytes", 512},
                {"write_seconds", 1e-3},
                {"in_flight", 1},
                {"busy_seconds", 1e-3},
                {"queue_seconds", 1e-3},
                {"discards", 1},
                {"", 1},
                {"discarded_bytes", 512},
                {"discard_seconds", 1e-3},
                {"flushes", 1},
                {"flush_seconds", 1e-3}});
    const std::string errors = "disk_errors{disk=\"*\"}";
    rows.push_back({errors, "/sys/block/*/device/ioerr_cnt", "", 0});
    rows.push_back({errors, "/sys/fs/ext4/*/errors_count", "", 0});
    const std::vector<std::pair<const char*, double>> packets = {
        {"bytes", 1}, {"packets", 1}, {"errors", 1}, {"drops", 1}};
    const std::string interface = "{interface=\"*\"}";
    AddColumns(rows, {"network_received_", interface, "/proc/net/dev", 1, "*", 1}, packets);
    AddColumns(rows, {"network_transmitted_", interface, "/proc/net/dev", 1, "*", 9}, packets);
}

void AddOthers(std::vector<Row>& rows) {
    AddRows(rows, {"", "", "/proc/net/snmp", 1},
            {{"tcp_segments_received", "Tcp/InSegs"},
             {"tcp_segments_sent", "Tcp/OutSegs"},
             {"tcp_segments_retransmitted", "Tcp/RetransSegs"},
             {"tcp_opens_active", "Tcp/ActiveOpens"},
             {"tcp_opens_passive", "Tcp/PassiveOpens"},
             {"tcp_resets_received", "Tcp/EstabResets"},
             {"tcp_resets_sent", "Tcp/OutRsts"},
             {"tcp_established", "Tcp/CurrEstab"},
             {"udp_datagrams_received", "Udp/InDatagrams"},
             {"udp_datagrams_sent", "Udp/OutDatagrams"},
             {"udp_errors", "Udp/InErrors"}});
    AddRows(rows, {"tcp_listen_", "", "/proc/net/netstat", 1},
            {{"overflows", "TcpExt/ListenOverflows"}, {"drops", "TcpExt/ListenDrops"}});
    rows.push_back({"entropy_available_bits", "/proc/sys/kernel/random/entropy_avail", "", 0});
    AddColumns(rows, {"descriptors_", "", "/proc/sys/fs/file-nr", 1, "", 0},
               {{"open", 1}, {"", 1}, {"limit", 1}});
    rows.push_back({"core_frequency_hertz{cpu=\"*\"}",
                    "/sys/devices/system/cpu/cpu*/cpufreq/scaling_cur_freq", "", 0, 1000});
}

using Lines = std::vector<std::vector<std::string>>;

// ":" and "=" are blanks. The two lines of a protocol become one: "Tcp/InSegs 12 Tcp/OutSegs 13".
Lines ReadWords(const std::string& path) {
    Lines lines;
    std::ifstream file(path);
    for (std::string text; std::getline(file, text);) {
        for (char& c : text) c = c == ':' || c == '=' ? ' ' : c;
        std::istringstream words(text);
        lines.push_back({std::istream_iterator<std::string>(words), {}});
    }
    for (size_t i = 0; path.starts_with("/proc/net/") && i + 1 < lines.size(); i += 2) {
        if (lines[i].empty() || lines[i][0] != lines[i + 1][0]) break;
        std::vector<std::string> both;
        for (size_t word = 1; word < lines[i].size(); ++word) {
            both.push_back(lines[i][0] + "/" + lines[i][word]);
            both.push_back(lines[i + 1][word]);
        }
        lines[i] = both;
        lines[i + 1].clear();
    }
    return lines;
}

std::optional<double> Find(const Lines& lines, const std::string& key, size_t column) {
    for (const auto& words : lines) {
        const auto found = std::find(words.begin(), words.end(), key);
        const auto at = static_cast<size_t>(found - words.begin());
        if (key.empty() && column < words.size())
            return std::strtod(words[column].c_str(), nullptr);
        if (found == words.end() || at + column >= words.size()) continue;
        return std::strtod(words[at + column].c_str(), nullptr);
    }
    return std::nullopt;
}

class Files {
  public:
    // The same bytes for all that asks.
    std::optional<double> Value(const Row& row, const std::string& device) {
        const std::string path = WithDevice(row.path, device);
        const auto [lines, isNew] = m_files.try_emplace(path);
        if (isNew) lines->second = ReadWords(path);
        std::istringstream keys(row.key);
        std::optional<double> sum;
        std::string key;
        do {
            key.clear();
            std::getline(keys, key, '+');
            const auto value = Find(lines->second, WithDevice(key, device), row.column);
            if (value) sum = sum.value_or(0) + *value * row.factor;
        } while (keys && !keys.eof() && !row.key.empty());
        return sum;
    }

  private:
    std::map<std::string, Lines> m_files;
};

// What the files say of the series of the moment.
Values ReadAgain(const std::vector<Row>& rows, const Moment& moment) {
    Files files;
    Values theirs;
    for (const auto& each : moment.values) {
        for (const Row& row : rows) {
            const auto device = DeviceOf(each.first, row.ours);
            const auto value = device ? files.Value(row, *device) : std::nullopt;
            if (value) theirs[each.first] = *value;
        }
    }
    return theirs;
}

}  // namespace

int CompareFiles(Host& host) {
    std::vector<Row> rows;
    AddProcessors(rows);
    AddMemory(rows);
    AddDevices(rows);
    AddOthers(rows);
    Comparison comparison;
    std::set<std::string> others;
    for (int round = 0; round < 5; ++round) {
        const Moment before = host.Sample();
        const Values theirs = ReadAgain(rows, before);
        const Moment after = host.Sample();
        for (const auto& [id, first] : before.values) {
            if (theirs.count(id) == 0) others.insert(id.substr(0, id.find('{')));
            if (theirs.count(id) == 0 || after.values.count(id) == 0) continue;
            const double last = after.values.at(id);
            const double play = host.IsCounter(id) ? 0 : Play(id, before.values);
            comparison.Check("file", id, "value", std::min(first, last) - play, theirs.at(id),
                             std::max(first, last) + play);
        }
        usleep(200'000);
    }
    for (const std::string& name : others) std::printf("  not of a file: %s\n", name.c_str());
    return comparison.Report("files of /proc and /sys");
}
