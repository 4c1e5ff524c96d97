// Files of one or two lines: load, pressure stall totals, entropy, open files.
#include <cerrno>

#include "performance/source.h"
#include "performance/text_cursor.h"

namespace {

constexpr SeriesRow Load(const char* name, const char* help) {
    return {name, "", help, SeriesKind::kGauge, 1, 100};
}
constexpr SeriesRow kLoads[] = {
    Load("load_1", "Threads that run, could run or wait for a disk, mean of a minute"),
    Load("load_5", "The same over 5 minutes"),
    Load("load_15", "The same over 15 minutes"),
};

// "0.42 0.68 1.81 1/193 12345": hundredths.
class LoadSource : public Source {
  public:
    void Sample(SampleContext& context) override {
        TextCursor cursor(m_file.Read(context));
        for (size_t i = 0; i < m_series.size(); ++i) {
            uint64_t whole = 0;
            uint64_t hundredths = 0;
            if (cursor.Number(whole) && cursor.Skip(".") && cursor.Number(hundredths)) {
                m_series[i].Set(context.table, kLoads[i], whole * 100 + hundredths);
            } else {
                m_series[i].Clear(context.table);
            }
        }
    }
    void AddNotes(std::vector<std::string>& notes) const override { m_file.AddNote(notes, "load"); }

  private:
    SourceFile m_file{"/proc/loadavg"};
    std::array<LazySeries, std::size(kLoads)> m_series;
};

// "some avg10=0.00 avg60=0.00 avg300=0.00 total=0": microseconds; then "full", where the kernel
// has it.
class PressureSource : public Source {
  public:
    explicit PressureSource(const std::string& what)
        : m_what(what), m_file("/proc/pressure/" + what) {}

    void Sample(SampleContext& context) override {
        TextCursor cursor(m_file.Read(context));
        for (size_t i = 0; i < m_series.size(); ++i) {
            const std::string_view line = cursor.Line();
            TextCursor total(line.substr(std::min(line.rfind('=') + 1, line.size())));
            uint64_t value = 0;
            if (line.starts_with(kLines[i]) && total.Number(value)) {
                Set(context.table, i, value);
            } else {
                m_series[i].Clear(context.table);
            }
        }
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        const std::string series = "pressure_" + m_what + "_*";
        const bool isOff = m_file.Error() == EOPNOTSUPP;
        m_file.AddNote(notes, (series + (isOff ? ": boot with psi=1" : "")).c_str());
    }

  private:
    static constexpr std::string_view kLines[] = {"some", "full"};
    static constexpr const char* kHelp[] = {"Time in which at least one thread was stalled",
                                            "Time in which all threads were stalled"};

    void Set(SeriesTable& table, size_t i, uint64_t value) {
        if (!m_series[i].IsAdded()) {
            const std::string name =
                "pressure_" + m_what + "_" + std::string(kLines[i]) + "_seconds";
            m_series[i].Add(
                table, {name.c_str(), "seconds", kHelp[i], SeriesKind::kCounter, 1, 1'000'000});
        }
        m_series[i].Set(table, value);
    }

    std::string m_what;
    SourceFile m_file;
    std::array<LazySeries, std::size(kLines)> m_series;
};

// Numbers in one line; a row without a name is skipped.
template <size_t kCount>
class NumbersSource : public Source {
  public:
    NumbersSource(const char* path, const SeriesRow (&rows)[kCount]) : m_rows(rows), m_file(path) {}

    void Sample(SampleContext& context) override {
        TextCursor cursor(m_file.Read(context));
        for (size_t i = 0; i < kCount; ++i) {
            uint64_t value = 0;
            if (!cursor.Number(value)) {
                m_series[i].Clear(context.table);
            } else if (m_rows[i].name != nullptr) {
                m_series[i].Set(context.table, m_rows[i], value);
            }
        }
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        m_file.AddNote(notes, m_rows[0].name);
    }

  private:
    const SeriesRow (&m_rows)[kCount];
    SourceFile m_file;
    std::array<LazySeries, kCount> m_series;
};

constexpr SeriesRow kEntropy[] = {
    {"entropy_available_bits", "bits", "Entropy of the kernel's random numbers",
     SeriesKind::kGauge},
};
// The second number is 0 since Linux 2.6.
constexpr SeriesRow kDescriptors[] = {
    {"descriptors_open", "", "Open files of all processes", SeriesKind::kGauge},
    {},
    {"descriptors_limit", "", "Limit of open files of all processes", SeriesKind::kGauge},
};

}  // namespace

void AddSmallSources(Sources& sources) {
    sources.push_back(std::make_unique<LoadSource>());
    for (const char* what : {"cpu", "memory", "io"}) {
        sources.push_back(std::make_unique<PressureSource>(what));
    }
    sources.push_back(
        std::make_unique<NumbersSource<1>>("/proc/sys/kernel/random/entropy_avail", kEntropy));
    sources.push_back(std::make_unique<NumbersSource<3>>("/proc/sys/fs/file-nr", kDescriptors));
}
