// page_history FILE HOURS SERIES - writes a history of made-up values for the test of the page: a
// host whose load follows the day, with an alarm, a gap and a reboot, and names as a page must not
// trust.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "performance/history_writer.h"

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kBegin = 1'795'219'200 * kSecond;  // 2026-11-21 00:00 UTC

struct Made {
    SeriesTable::Index index;
    double level;  // a gauge's mean, or a counter's rate
    double noise;  // how far values are from it, as a part of it
    double sum = 0;
};

class Host {
  public:
    void Add(const char* name, const std::string& labels, const char* unit, bool isCounter,
             double level, double noise) {
        SeriesInfo info;
        info.name = name;
        info.labels = labels;
        info.unit = unit;
        info.help = "made up";
        info.kind = isCounter ? SeriesKind::kCounter : SeriesKind::kGauge;
        if (info.unit == "seconds") info.divide = 1000;
        if (info.unit == "celsius") info.divide = 1000;
        m_made.push_back({m_table.Add(info), level * info.divide, noise, 0});
    }
    // All values of this second; `busy` is how much there is to do, 0 to 1.
    void Set(double busy) {
        std::normal_distribution<double> normal;
        for (Made& made : m_made) {
            const double part = made.noise == 0 ? 1 : busy + made.noise * normal(m_random) * busy;
            const double value = made.level * std::max(part, 0.0);
            made.sum += value;
            const bool isCounter = m_table.Info(made.index).kind == SeriesKind::kCounter;
            m_table.Set(made.index, static_cast<uint64_t>(isCounter ? made.sum : value));
        }
    }
    const SeriesTable& Table() const { return m_table; }
    size_t Size() const { return m_made.size(); }

  private:
    SeriesTable m_table;
    std::vector<Made> m_made;
    std::mt19937 m_random{1};
};

void AddAll(Host& host, size_t count) {
    constexpr double kGib = 1 << 30;
    const char* const parts[] = {"user", "nice", "system", "iowait", "irq", "softirq", "steal"};
    const double shares[] = {4.1, 0, 1.3, 0.6, 0, 0.2, 0};
    for (size_t i = 0; i < std::size(parts); ++i) {
        const std::string name = std::string("cpu_") + parts[i] + "_seconds";
        host.Add(name.c_str(), "", "seconds", true, shares[i], 0.1);
    }
    host.Add("cpu_idle_seconds", "", "seconds", true, 3, 0);
    host.Add("load_1", "", "", false, 9, 0.2);
    const char* const memory[] = {"anonymous", "slab", "buffers", "cached"};
    for (size_t i = 0; i < std::size(memory); ++i) {
        const std::string name = std::string("memory_") + memory[i] + "_bytes";
        host.Add(name.c_str(), "", "bytes", false, kGib * static_cast<double>(i + 1), 0.02);
    }
    host.Add("swap_total_bytes", "", "bytes", false, 2 * kGib, 0);
    host.Add("swap_free_bytes", "", "bytes", false, 2 * kGib, 0);
    host.Add("oom_kills", "", "", true, 0, 0);
    host.Add("pressure_io_some_seconds", "", "seconds", true, 0.2, 0.5);
    for (const char* disk : {"disk=\"sda\"", "disk=\"nvme0n1\""}) {
        host.Add("disk_read_bytes", disk, "bytes", true, 9e7, 0.7);
        host.Add("disk_written_bytes", disk, "bytes", true, 2e7, 0.7);
        host.Add("disk_busy_seconds", disk, "seconds", true, 0.7, 0.1);
    }
    host.Add("network_received_bytes", "interface=\"eth0\"", "bytes", true, 4e7, 0.3);
    host.Add("filesystem_size_bytes", "mount=\"/\"", "bytes", false, 100 * kGib, 0);
    host.Add("filesystem_available_bytes", "mount=\"/\"", "bytes", false, 40 * kGib, 0);
    host.Add("temperature_celsius", "chip=\"k10\",sensor=\"die\"", "celsius", false, 60, 0.01);
    host.Add("web_requests",
             SeriesLabel("module", "web") + "," +
                 SeriesLabel("path", "</script><img src=x onerror=\"document.title=1\">"),
             "", true, 1000, 0.2);
    for (size_t core = 0; host.Size() < count; ++core) {
        const std::string label = SeriesLabel("cpu", std::to_string(core));
        const bool isNoisy = core % 3 == 0;
        host.Add("core_idle_seconds", label, "seconds", true, 0.4, isNoisy ? 0.2 : 0);
        host.Add("core_iowait_seconds", label, "seconds", true, 0.05, isNoisy ? 0.2 : 0);
        host.Add("core_frequency_hertz", label, "hertz", false, 3.2e9, isNoisy ? 0.05 : 0);
    }
}

void MarkAt(HistoryWriter& writer, const SampleTime& time, MarkKind kind, int64_t value,
            const char* text) {
    writer.Mark({time, kind, value, text});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const int64_t seconds = std::atoll(argv[2]) * 3600;
    HistorySettings settings;
    settings.path = argv[1];
    settings.size = uint64_t{128} << 20;
    settings.host = "db-7 <b>";
    settings.bootId = "one";
    std::string error;
    const auto writer = HistoryWriter::Open(settings, error);
    if (!writer) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    Host host;
    AddAll(host, std::strtoul(argv[3], nullptr, 10));
    for (int64_t i = 0; i < seconds; ++i) {
        const SampleTime time = {kBegin + i * kSecond, (i + 100) * kSecond};
        const double day = 0.35 - 0.25 * std::cos(static_cast<double>(i) / 86400 * 6.2832);
        const bool isBurst = i % 7200 > 6900;
        if (i == 0) MarkAt(*writer, time, MarkKind::kStart, 0, "1.0.0, each 1 s");
        if (i == seconds / 2) MarkAt(*writer, time, MarkKind::kAlarm, 0, "disk sda: busy 99 %");
        if (i == seconds / 2 + 900) MarkAt(*writer, time, MarkKind::kAlarmEnd, 0, "disk sda: busy");
        if (i == seconds / 4 + 600) MarkAt(*writer, time, MarkKind::kGap, 600, "");
        if (i == seconds * 3 / 4 + 120) MarkAt(*writer, time, MarkKind::kReboot, 0, "two");
        const bool isGap = (i > seconds / 4 && i < seconds / 4 + 600) ||
                           (i > seconds * 3 / 4 && i < seconds * 3 / 4 + 120);
        host.Set(isBurst ? 1 : day);
        if (!isGap) writer->Append(time, host.Table());
    }
    return 0;
}
