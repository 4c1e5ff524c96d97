// The frequency of each processor. Some drivers interrupt a processor to know it, so that this is
// no part of each sample.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "base/line_reader.h"
#include "performance/slow_source.h"
#include "performance/text_cursor.h"

namespace {

constexpr const char* kOnline = "/sys/devices/system/cpu/online";
constexpr const char* kCpuInfo = "/proc/cpuinfo";
// Without cpufreq there is only /proc/cpuinfo, a page for two processors, and it is read each time
// out of so many.
constexpr int kCpuInfoEvery = 6;

struct FrequencyTask : SlowTask {
    struct Frequency {
        uint64_t processor;
        uint64_t kilohertz;
    };

    void Run() override {
        if (m_isCpuInfo && ++m_skipped < kCpuInfoEvery) return;
        m_skipped = 0;
        found.clear();
        // The driver may have been loaded since.
        m_isCpuInfo = !ReadCpufreq();
        if (m_isCpuInfo) ReadCpuInfo();
    }
    std::vector<Frequency> found;  // in order

  private:
    // False when no processor has one.
    bool ReadCpufreq() {
        char text[1024];
        TextCursor ranges(ReadSmall(kOnline, text));
        uint64_t first = 0;
        while (ranges.Number(first)) {
            uint64_t last = first;
            if (ranges.Skip("-") && !ranges.Number(last)) break;
            for (uint64_t processor = first; processor <= last; ++processor) ReadOne(processor);
            if (!ranges.Skip(",")) break;
        }
        return !found.empty();
    }
    void ReadOne(uint64_t processor) {
        char path[96];
        std::snprintf(path, sizeof path, "/sys/devices/system/cpu/cpu%u/cpufreq/scaling_cur_freq",
                      static_cast<unsigned>(processor));
        char text[32];
        uint64_t kilohertz = 0;
        if (TextCursor(ReadSmall(path, text)).Number(kilohertz)) {
            found.push_back({processor, kilohertz});
        }
    }
    template <size_t kSize>
    static std::string_view ReadSmall(const char* path, char (&text)[kSize]) {
        const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
        const ssize_t count = fd.IsOpen() ? read(fd.Get(), text, kSize) : -1;
        return {text, count > 0 ? static_cast<size_t>(count) : 0};
    }
    // "processor	: 3" ... "cpu MHz		: 2399.998".
    void ReadCpuInfo() {
        const UniqueFd fd(open(kCpuInfo, O_RDONLY | O_CLOEXEC));
        if (!fd.IsOpen()) return;
        SmallLineReader reader(fd.Get());
        uint64_t processor = 0;
        for (std::string_view line; reader.Next(line);) {
            const bool isFrequency = line.starts_with("cpu MHz");
            if (!isFrequency && !line.starts_with("processor")) continue;
            TextCursor value(line.substr(std::min(line.find(':') + 1, line.size())));
            uint64_t whole = 0;
            uint64_t thousandths = 0;
            if (!value.Number(whole)) continue;
            if (!isFrequency) {
                processor = whole;
            } else if (value.Skip(".") && value.Number(thousandths)) {
                found.push_back({processor, whole * 1000 + thousandths});
            }
        }
    }

    int m_skipped = 0;
    bool m_isCpuInfo = false;
};

constexpr SeriesRow kFrequencyRow = {"core_frequency_hertz", "hertz", "Frequency of a processor",
                                     SeriesKind::kGauge, 1000};

struct Core {
    explicit Core(std::string_view number) : name(number) {}
    void Clear(SeriesTable& table) const { series.Clear(table); }
    void Remove(SeriesTable& table) { series.Remove(table); }
    std::string name;
    LazySeries series;
};

class FrequencySource : public SlowSource {
  public:
    void Start(SampleContext& context, SlowWorker& worker) override {
        m_task.Start(worker, context.now);
    }
    void Collect(SampleContext& context) override {
        m_isOverdue = m_task.IsOverdue(context.now);
        if (m_isOverdue) m_cores.Clear(context.table);
        if (!m_task.Take()) return;
        m_cores.Begin();
        for (const auto& [processor, kilohertz] : m_task.Result().found) {
            char number[24];
            std::snprintf(number, sizeof number, "%u", static_cast<unsigned>(processor));
            Core& core = m_cores.Next(number);
            core.series.Set(context.table, kFrequencyRow, "cpu", core.name, kilohertz);
        }
        m_cores.End(context.table);
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        if (m_isOverdue || m_cores.All().empty()) {
            notes.emplace_back(
                "neither cpufreq nor /proc/cpuinfo say a frequency: no core_frequency_hertz");
        }
    }

  private:
    PendingTask<FrequencyTask> m_task;
    DeviceList<Core> m_cores;
    bool m_isOverdue = false;
};

}  // namespace

void AddFrequencySource(SlowSources& sources) {
    sources.push_back(std::make_unique<FrequencySource>());
}
