// /proc/stat: times of all processors and of each, interrupts, switches, processes.
#include <unistd.h>

#include "performance/source.h"
#include "performance/text_cursor.h"

namespace {

struct Time {
    const char* name;
    const char* help;
};
// In the kernel's order.
constexpr Time kTimes[] = {
    {"user", "Time in user mode, guests included"},
    {"nice", "Time in user mode at low priority, guests included"},
    {"system", "Time in the kernel"},
    {"idle", "Idle time"},
    {"iowait", "Idle time while input or output was waited for"},
    {"irq", "Time in hardware interrupts"},
    {"softirq", "Time in software interrupts"},
    {"steal", "Time that the hypervisor gave to others"},
    {"guest", "Time of guests, part of user"},
    {"guest_nice", "Time of guests at low priority, part of nice"},
};
using TimeSeries = std::array<LazySeries, std::size(kTimes)>;

// "cpu_user_seconds" or "core_user_seconds".
class Processor {
  public:
    explicit Processor(std::string_view number) : name(number) {}

    void Read(SeriesTable& table, TextCursor& line) {
        for (size_t i = 0; i < m_series.size(); ++i) {
            uint64_t ticks = 0;
            if (line.Number(ticks)) {
                Set(table, i, ticks);
            } else {
                m_series[i].Clear(table);
            }
        }
    }
    void Clear(SeriesTable& table) const {
        for (const LazySeries& series : m_series) series.Clear(table);
    }
    void Remove(SeriesTable& table) {
        for (LazySeries& series : m_series) series.Remove(table);
    }

    std::string name;  // empty: all of them

  private:
    void Set(SeriesTable& table, size_t i, uint64_t ticks) {
        if (m_series[i].IsAdded()) return m_series[i].Set(table, ticks);
        const std::string series =
            (name.empty() ? "cpu_" : "core_") + std::string(kTimes[i].name) + "_seconds";
        static const auto ticksPerSecond = static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
        m_series[i].Add(
            table,
            {series.c_str(), "seconds", kTimes[i].help, SeriesKind::kCounter, 1, ticksPerSecond},
            name.empty() ? "" : SeriesLabel("cpu", name));
        m_series[i].Set(table, ticks);
    }

    TimeSeries m_series;
};

struct Total {
    std::string_view key;
    SeriesRow row;
};
// In the kernel's order, after the processors.
constexpr Total kTotals[] = {
    {"intr ", {"interrupts", "", "Interrupts served"}},
    {"ctxt ", {"context_switches", "", "Context switches"}},
    {"processes ", {"forks", "", "Processes and threads made"}},
    {"procs_running ", {"processes_running", "", "Threads that run or could", SeriesKind::kGauge}},
    {"procs_blocked ",
     {"processes_blocked", "", "Threads that wait for a disk", SeriesKind::kGauge}},
};

class CpuSource : public Source {
  public:
    void Sample(SampleContext& context) override {
        const std::string_view text = m_file.Read(context);
        TextCursor cursor(text);
        m_cores.Begin();
        if (cursor.Skip("cpu ")) {
            m_all.Read(context.table, cursor);
            cursor.NextLine();
        } else {
            m_all.Clear(context.table);
        }
        while (cursor.Skip("cpu")) {
            m_cores.Next(cursor.Word()).Read(context.table, cursor);
            cursor.NextLine();
        }
        if (text.empty()) {
            m_cores.Clear(context.table);
        } else {
            m_cores.End(context.table);
        }
        ReadTotals(context.table, cursor);
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        m_file.AddNote(notes, "times of processors");
    }

  private:
    void ReadTotals(SeriesTable& table, TextCursor cursor) {
        for (size_t i = 0; i < m_totals.size(); ++i) {
            TextCursor line = cursor;
            while (!line.AtEnd() && !line.Skip(kTotals[i].key)) line.NextLine();
            uint64_t value = 0;
            if (line.Number(value)) {
                m_totals[i].Set(table, kTotals[i].row, value);
                line.NextLine();
                cursor = line;
            } else {
                m_totals[i].Clear(table);
            }
        }
    }

    SourceFile m_file{"/proc/stat"};
    Processor m_all{""};
    DeviceList<Processor> m_cores;
    std::array<LazySeries, std::size(kTotals)> m_totals;
};

}  // namespace

void AddCpuSource(Sources& sources) {
    sources.push_back(std::make_unique<CpuSource>());
}
