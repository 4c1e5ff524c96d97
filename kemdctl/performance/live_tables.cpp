#include "kemdctl/performance/live_tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <span>

#include "base/text.h"
#include "kemdctl/performance/format.h"
#include "kemdctl/ui/text.h"

namespace {

SeriesInfo Like(const char* unit, SeriesKind kind) {
    SeriesInfo info;
    info.unit = unit;
    info.kind = kind;
    return info;
}

std::string CountText(double number) {
    static const ValueFormat format(Like("", SeriesKind::kGauge));
    return format.Text(std::isfinite(number) ? std::round(number * 10) / 10 : number);
}

std::string MillisecondsText(double seconds) {
    if (!std::isfinite(seconds)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, seconds < 0.1 ? "%.1f ms" : "%.0f ms", seconds * 1000);
    return text;
}

double Or0(double number) {
    return std::isfinite(number) ? number : 0;
}

LiveTable Processors(const LiveFacts& facts) {
    constexpr std::string_view kNames[] = {
        "core_user_seconds",   "core_nice_seconds", "core_system_seconds",
        "core_iowait_seconds", "core_irq_seconds",  "core_softirq_seconds",
        "core_steal_seconds",  "core_idle_seconds", "core_frequency_hertz"};
    static const ValueFormat frequency(Like("hertz", SeriesKind::kGauge));
    LiveTable table = {"CPUs",
                       {{"busy", 7},
                        {"user", 7},
                        {"system", 7},
                        {"iowait", 7},
                        {"irq", 7},
                        {"steal", 7},
                        {"frequency", 10}},
                       {}};
    for (LiveRow& row : facts.values.Rows(kNames)) {
        const auto& v = row.values;
        const double user = v[0] + Or0(v[1]), irq = Or0(v[4]) + Or0(v[5]);
        const double busy = user + v[2] + irq + Or0(v[6]);
        table.rows.push_back(
            {"cpu" + row.name,
             {PercentText(busy), PercentText(user), PercentText(v[2]), PercentText(v[3]),
              PercentText(irq), PercentText(v[6]), frequency.Text(v[8])},
             {busy, user, v[2], v[3], irq, v[6], v[8]},
             Or0(busy),
             Or0(busy)});
    }
    return table;
}

LiveTable Disks(const LiveFacts& facts) {
    constexpr std::string_view kNames[] = {
        "disk_read_bytes", "disk_written_bytes", "disk_busy_seconds", "disk_queue_seconds",
        "disk_reads",      "disk_writes",        "disk_read_seconds", "disk_write_seconds"};
    LiveTable table = {"disks",
                       {{"read", 11},
                        {"written", 11},
                        {"busy", 7},
                        {"queue", 7},
                        {"reads/s", 9},
                        {"writes/s", 10},
                        {"request", 9}},
                       {}};
    for (LiveRow& row : facts.values.Rows(kNames)) {
        const auto& v = row.values;
        const double requests = v[4] + v[5];
        const double each = requests > 0 ? (v[6] + v[7]) / requests : std::nan("");
        table.rows.push_back(
            {row.name,
             {BytesText(v[0], true), BytesText(v[1], true), PercentText(v[2]), CountText(v[3]),
              CountText(v[4]), CountText(v[5]), MillisecondsText(each)},
             {v[0], v[1], v[2], v[3], v[4], v[5], each},
             Or0(v[0]) + Or0(v[1]) + Or0(v[2]),
             Or0(v[2])});
    }
    return table;
}

LiveTable Interfaces(const LiveFacts& facts) {
    constexpr std::string_view kNames[] = {
        "network_received_bytes",      "network_transmitted_bytes", "network_received_packets",
        "network_transmitted_packets", "network_received_errors",   "network_transmitted_errors",
        "network_received_drops",      "network_transmitted_drops"};
    LiveTable table = {"interfaces",
                       {{"received", 11},
                        {"sent", 11},
                        {"packets in", 11},
                        {"out", 7},
                        {"errors", 7},
                        {"drops", 7}},
                       {}};
    for (LiveRow& row : facts.values.Rows(kNames)) {
        const auto& v = row.values;
        const double errors = v[4] + v[5], drops = v[6] + v[7];
        table.rows.push_back({row.name,
                              {BytesText(v[0], true), BytesText(v[1], true), CountText(v[2]),
                               CountText(v[3]), CountText(errors), CountText(drops)},
                              {v[0], v[1], v[2], v[3], errors, drops},
                              Or0(v[0]) + Or0(v[1]),
                              errors > 0 ? 1.0 : 0.0});
    }
    return table;
}

LiveTable FileSystems(const LiveFacts& facts) {
    constexpr std::string_view kNames[] = {"filesystem_size_bytes", "filesystem_free_bytes",
                                           "filesystem_available_bytes", "filesystem_inodes",
                                           "filesystem_inodes_free"};
    LiveTable table = {
        "file systems", {{"used", 7}, {"available", 11}, {"size", 11}, {"inodes", 8}}, {}};
    for (LiveRow& row : facts.values.Rows(kNames)) {
        const auto& v = row.values;
        const double taken = v[0] - v[1];
        const double used = taken + v[2] > 0 ? taken / (taken + v[2]) : std::nan("");
        const double inodes = v[3] > 0 ? 1 - v[4] / v[3] : std::nan("");
        table.rows.push_back({row.name,
                              {PercentText(used), BytesText(v[2], false), BytesText(v[0], false),
                               PercentText(inodes)},
                              {used, v[2], v[0], inodes},
                              Or0(used),
                              std::max(Or0(used), Or0(inodes))});
    }
    return table;
}

LiveTable Sensors(const LiveFacts& facts) {
    constexpr std::string_view kNames[] = {"temperature_celsius", "temperature_limit_celsius",
                                           "fan_speed_rpm", "power_watts"};
    static const ValueFormat formats[] = {ValueFormat(Like("celsius", SeriesKind::kGauge)),
                                          ValueFormat(Like("celsius", SeriesKind::kGauge)),
                                          ValueFormat(Like("rpm", SeriesKind::kGauge)),
                                          ValueFormat(Like("watts", SeriesKind::kGauge))};
    LiveTable table = {"sensors", {{"value", 11}, {"limit", 11}}, {}};
    for (LiveRow& row : facts.values.Rows(kNames)) {
        const auto& v = row.values;
        for (const size_t kind : {0, 2, 3}) {
            if (!std::isfinite(v[kind])) continue;
            const double limit = kind == 0 ? v[1] : std::nan("");
            const double near = limit > 0 ? v[kind] / limit : 0;
            table.rows.push_back({row.name,
                                  {formats[kind].Text(v[kind]), formats[1].Text(limit)},
                                  {v[kind], limit},
                                  near > 0 ? near * 1000 : v[kind] / 1e5,
                                  near});
        }
    }
    return table;
}

LiveTable ModuleSeries(const LiveFacts& facts) {
    LiveTable table = {"modules", {{"value", 14}}, {}};
    for (const LiveModuleSeries& each : facts.modules) {
        table.rows.push_back({each.name, {each.value}, {each.number}, 0, 0});
    }
    return table;
}

struct Process {
    std::string name;
    double use[3] = {std::nan(""), std::nan(""), std::nan("")};
};

// A line: "cpu 1 4711 some name 12.3". What is not among the ten of a kind has no number of it.
LiveTable Processes(const LiveFacts& facts) {
    constexpr std::string_view kKinds[] = {"cpu ", "memory ", "io "};
    std::map<std::string, Process> processes;
    for (std::string_view rest = facts.processes; !rest.empty();) {
        std::string_view line = TakeLine(rest);
        const auto* kind =
            std::find_if(std::begin(kKinds), std::end(kKinds),
                         [line](std::string_view each) { return line.starts_with(each); });
        const size_t rank = line.find(' '), last = line.rfind(' ');
        const size_t pid = rank == line.npos ? rank : line.find(' ', rank + 1);
        const size_t name = pid == line.npos ? pid : line.find(' ', pid + 1);
        if (kind == std::end(kKinds) || name == line.npos || name >= last) continue;
        double number = 0;
        (void)std::from_chars(line.data() + last + 1, line.data() + line.size(), number);
        Process& process = processes[std::string(line.substr(pid + 1, name - pid - 1))];
        process.name = line.substr(name + 1, last - name - 1);
        process.use[kind - std::begin(kKinds)] = number;
    }
    LiveTable table = {"processes", {{"CPU", 8}, {"memory", 11}, {"read+written", 13}}, {}};
    for (const auto& [pid, process] : processes) {
        const auto& [cpu, memory, io] = process.use;
        table.rows.push_back(
            {pid + " " + Printable(process.name),
             {PercentText(cpu / 100), BytesText(memory, false), BytesText(io, true)},
             {cpu, memory, io},
             Or0(cpu) * 1e15 + Or0(memory),
             0});
    }
    return table;
}

using Maker = LiveTable (*)(const LiveFacts& facts);
constexpr Maker kMakers[] = {Processors, Disks,        Interfaces, FileSystems,
                             Sensors,    ModuleSeries, Processes};
static_assert(std::size(kMakers) == kLiveSections);

}  // namespace

std::string PercentText(double share) {
    if (!std::isfinite(share)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, share < 0.9995 ? "%.1f%%" : "%.0f%%",
                  std::max(share, 0.0) * 100);
    return text;
}

std::string BytesText(double bytes, bool isRate) {
    static const ValueFormat rate(Like("bytes", SeriesKind::kCounter));
    static const ValueFormat size(Like("bytes", SeriesKind::kGauge));
    return (isRate ? rate : size).Text(bytes);
}

LiveTable MakeTable(size_t number, const LiveFacts& facts) {
    return kMakers[number - 1](facts);
}

std::vector<LiveRow> ProcessorsBusy(const LiveValues& values) {
    constexpr std::string_view kNames[] = {"core_idle_seconds", "core_iowait_seconds"};
    std::vector<LiveRow> rows = values.Rows(kNames);
    for (LiveRow& row : rows) {
        row.values = {std::clamp(1 - row.values[0] - Or0(row.values[1]), 0.0, 1.0)};
    }
    return rows;
}
