// kemdctl performance export: all values of a time, for other programs. What is in memory at once
// is a part of the time, whatever is exported.
#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "base/json.h"
#include "kemdctl/performance/command.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/performance/selection.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

// Seconds since 1970 with what it takes of the fraction.
void AppendSeconds(std::string& to, int64_t wall) {
    to += std::to_string(wall / kSecond);
    std::string fraction = std::to_string(kSecond + wall % kSecond);
    fraction[0] = '.';
    fraction.resize(fraction.find_last_not_of('0') + 1);
    if (fraction.size() > 1) to += fraction;
}

// A series that is exported. What is `last` here is the value itself: of a counter its count.
struct Exported {
    uint32_t number;
    const SeriesInfo* info;
};

class Exporter {
  public:
    Exporter(HistoryReader& reader, const std::vector<uint32_t>& numbers, HistorySpan span,
             int64_t step)
        : m_reader(reader), m_span(span), m_step(step) {
        for (const uint32_t number : numbers) {
            m_series.push_back({number, &reader.Series()[number]});
        }
    }
    Exporter(const Exporter&) = delete;
    Exporter& operator=(const Exporter&) = delete;
    virtual ~Exporter() = default;
    virtual void Run() = 0;

  protected:
    // Calls `take` with each part of the time and the points of these series in it.
    template <typename Take>
    void ReadParts(std::span<const Exported> series, Take take);
    void Put(std::string& text) {
        Write(text);
        text.clear();
    }

    HistoryReader& m_reader;
    std::vector<Exported> m_series;
    HistorySpan m_span;
    int64_t m_step;
};

template <typename Take>
void Exporter::ReadParts(std::span<const Exported> series, Take take) {
    std::vector<uint32_t> numbers;
    for (const Exported& each : series) numbers.push_back(each.number);
    // About so many points at once, in whole steps; of long ones less than a year, or one.
    constexpr int64_t kPoints = 200'000, kYear = 31'536'000 * kSecond;
    const int64_t unit = m_step > 0 ? m_step : std::max<int64_t>(m_reader.PeriodNs(), kSecond / 10);
    const int64_t count = std::max<int64_t>(kPoints / static_cast<int64_t>(series.size()), 60);
    const int64_t length = unit * std::clamp<int64_t>(kYear / unit, 1, count);
    std::vector<ColumnPoints> points;
    for (int64_t from = m_span.from; from < m_span.to && !HasWriteFailed();) {
        const int64_t end = (from / length + 1) * length;
        const HistorySpan part = {from, std::min(end, m_span.to)};
        m_reader.Read(numbers, part, m_step, points);
        take(points);
        from = part.to;
    }
}

// What each series has at one time; null: nothing.
using Row = std::vector<const HistoryPoint*>;

// The point of a time, and goes on after it. The clock may have been set back: the last one counts.
const HistoryPoint* TakeAt(const ColumnPoints& points, int64_t wall, size_t& next) {
    const HistoryPoint* point = nullptr;
    while (next < points.size() && points[next].wall == wall) point = &points[next++];
    return point;
}

// Calls take(wall, row) for each time in order. The points of a series are in order of time.
template <typename Take>
void ForEachRow(const std::vector<ColumnPoints>& points, Take take) {
    Row row(points.size());
    std::vector<size_t> next(points.size());
    for (;;) {
        int64_t wall = INT64_MAX;
        for (size_t i = 0; i < points.size(); ++i) {
            if (next[i] < points[i].size()) wall = std::min(wall, points[i][next[i]].wall);
        }
        if (wall == INT64_MAX) return;
        for (size_t i = 0; i < points.size(); ++i) row[i] = TakeAt(points[i], wall, next[i]);
        take(wall, row);
    }
}

// A row for each time: the time, then the value of each series; empty where it has none.
class CsvExporter : public Exporter {
  public:
    using Exporter::Exporter;
    void Run() override {
        std::string text = "time";
        for (const Exported& each : m_series) text += "," + Quoted(SeriesId(*each.info));
        text += '\n';
        ReadParts(m_series, [&](const std::vector<ColumnPoints>& points) {
            ForEachRow(points, [&](int64_t wall, const Row& row) {
                AppendRow(text, wall, row);
                Put(text);
            });
        });
    }

  private:
    static void AppendRow(std::string& text, int64_t wall, const Row& row) {
        AppendSeconds(text, wall);
        for (const HistoryPoint* point : row) {
            text += ',';
            if (point != nullptr) text += NumberText(point->last);
        }
        text += '\n';
    }
    static std::string Quoted(const std::string& id) {
        if (id.find_first_of(",\"\n\r") == id.npos) return id;
        std::string text = "\"";
        for (const char c : id) text.append(c == '"' ? 2 : 1, c);
        return text + '"';
    }
};

// An object for each time, with a member for each series that has a value.
class JsonExporter : public Exporter {
  public:
    using Exporter::Exporter;
    void Run() override {
        for (const Exported& each : m_series) m_keys.push_back(JsonQuoted(SeriesId(*each.info)));
        ReadParts(m_series, [&](const std::vector<ColumnPoints>& points) {
            std::string text;
            ForEachRow(points, [&](int64_t wall, const Row& row) {
                AppendRow(text, wall, row);
                Put(text);
            });
        });
    }

  private:
    void AppendRow(std::string& text, int64_t wall, const Row& row) const {
        text += "{\"time\":";
        AppendSeconds(text, wall);
        for (size_t i = 0; i < row.size(); ++i) {
            if (row[i] == nullptr || !std::isfinite(row[i]->last)) continue;
            text.append(",").append(m_keys[i]).append(":").append(NumberText(row[i]->last));
        }
        text += "}\n";
    }

    std::vector<std::string> m_keys;
};

// The exposition format of OpenMetrics 1.0: the series of a name together.
class OpenMetricsExporter : public Exporter {
  public:
    using Exporter::Exporter;
    void Run() override {
        std::stable_sort(m_series.begin(), m_series.end(), [](const auto& one, const auto& other) {
            return one.info->name < other.info->name;
        });
        for (size_t begin = 0, end = 0; begin < m_series.size(); begin = end) {
            while (end < m_series.size() &&
                   m_series[end].info->name == m_series[begin].info->name) {
                ++end;
            }
            PutHead(*m_series[begin].info);
            // The samples of a series stand together.
            for (size_t i = begin; i < end; ++i) {
                PutSeries(m_series[i]);
            }
        }
        Write("# EOF\n");
    }

  private:
    // What the format reserves: the family of a counter has no "_total", its samples do, and a unit
    // ends the name.
    static std::string Family(const SeriesInfo& info) {
        constexpr std::string_view kTotal = "_total";
        std::string name = info.name;
        const bool isCounter = info.kind == SeriesKind::kCounter;
        if (isCounter && name.ends_with(kTotal)) name.resize(name.size() - kTotal.size());
        return name;
    }
    static void PutHead(const SeriesInfo& info) {
        const std::string name = Family(info);
        const bool isCounter = info.kind == SeriesKind::kCounter;
        std::string text = "# TYPE " + name + (isCounter ? " counter\n" : " gauge\n");
        if (!info.unit.empty() && name.ends_with("_" + info.unit)) {
            text += "# UNIT " + name + " " + info.unit + "\n";
        }
        text += "# HELP " + name + " ";
        for (const char c : info.help) {
            if (c == '\\' || c == '"') text += '\\';
            text += c == '\n' ? std::string("\\n") : std::string(1, c);
        }
        Write(text + "\n");
    }
    void PutSeries(const Exported& series) {
        std::string head = Family(*series.info);
        if (series.info->kind == SeriesKind::kCounter) head += "_total";
        if (!series.info->labels.empty()) head += "{" + series.info->labels + "}";
        std::string text;
        ReadParts({&series, 1}, [&](const std::vector<ColumnPoints>& points) {
            for (const HistoryPoint& point : points[0]) {
                text += head + ' ';
                AppendValue(text, point.last);
                text += ' ';
                AppendSeconds(text, point.wall);
                text += '\n';
                // Times of a series must grow: the clock may have been set back.
                if (point.wall <= m_lastTime && m_lastSeries == series.number) text.clear();
                m_lastTime =
                    m_lastSeries == series.number ? std::max(m_lastTime, point.wall) : point.wall;
                m_lastSeries = series.number;
                Put(text);
            }
        });
    }
    static void AppendValue(std::string& text, double value) {
        if (std::isfinite(value)) {
            text += NumberText(value);
        } else {
            text += std::isnan(value) ? "NaN" : value < 0 ? "-Inf" : "+Inf";
        }
    }

    int64_t m_lastTime = 0;
    uint32_t m_lastSeries = UINT32_MAX;
};

}  // namespace

int ExportHistory(const PerformanceOptions& options, ReportWriter& /*report*/) {
    if (options.form == ExportForm::kNone) {
        Complain("export needs one of --csv, --json-lines, --openmetrics and --html FILE");
        return kError;
    }
    const auto reader = OpenHistory(options);
    if (!reader) return kError;
    const auto numbers = ChooseSeries(reader->Series(), options.words);
    if (!numbers) return kNo;
    const auto span = ChooseSpan(options, *reader, true);
    if (!span) return kNo;
    const int64_t step = options.step.value_or(0);
    if (options.form == ExportForm::kCsv) {
        CsvExporter(*reader, *numbers, *span, step).Run();
    } else if (options.form == ExportForm::kJsonLines) {
        JsonExporter(*reader, *numbers, *span, step).Run();
    } else {
        OpenMetricsExporter(*reader, *numbers, *span, step).Run();
    }
    return HasWriteFailed() ? kError : kYes;
}
