// kemdctl performance show: values over time, as a table, as lines or as JSON.
#include <algorithm>
#include <map>
#include <string>

#include "kemdctl/performance/command.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/performance/plot.h"
#include "kemdctl/performance/selection.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

// What is shown.
struct View {
    std::vector<Column> columns;
    HistorySpan span;
    int64_t step = 0;
    std::vector<ColumnPoints> points;  // of each column
    std::vector<Mark> marks;
};

// The next usual step that is not below.
int64_t RoundStep(int64_t step) {
    constexpr int64_t kSteps[] = {1,   2,   5,    10,   15,   30,    60,    120,   300,
                                  600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400};
    const auto* found = std::find_if(std::begin(kSteps), std::end(kSteps),
                                     [step](int64_t seconds) { return seconds * kSecond >= step; });
    return found != std::end(kSteps) ? *found * kSecond : step;
}

// Where points of this step stand farther apart one after another, the history has no more of them.
void NoteCoarse(const View& view) {
    HistorySpan coarse;
    int64_t distance = 0;
    for (const ColumnPoints& points : view.points) {
        for (size_t i = 2; i < points.size(); ++i) {
            const int64_t before = points[i - 1].wall - points[i - 2].wall;
            const int64_t after = points[i].wall - points[i - 1].wall;
            const bool isEven = std::abs(after - before) <= after / 20;
            if (!isEven || after < view.step + view.step / 2) continue;
            if (distance == 0) coarse.from = points[i - 2].wall;
            coarse.to = std::max(coarse.to, points[i].wall);
            distance = std::max(distance, after);
        }
    }
    if (distance == 0) return;
    constexpr int64_t kHundredth = kSecond / 100;
    Complain("note: between %s and %s there are values only every %s, not every %s",
             TimeText(coarse.from).c_str(), TimeText(coarse.to).c_str(),
             SpanText((distance + kHundredth / 2) / kHundredth * kHundredth).c_str(),
             SpanText(view.step).c_str());
}

bool IsShown(const Mark& mark) {
    return mark.kind != MarkKind::kProcesses;
}

// kNo, after a complaint, when there is nothing.
int ReadView(const PerformanceOptions& options, HistoryReader& reader, View& view) {
    // Samples have exact times.
    const int64_t step = view.step > reader.PeriodNs() ? view.step : 0;
    view.points = ReadColumns(reader, view.columns, view.span, step);
    view.marks = reader.Marks(view.span);
    std::erase_if(view.marks, [](const Mark& mark) { return !IsShown(mark); });
    if (options.step) NoteCoarse(view);
    const bool isEmpty = std::all_of(view.points.begin(), view.points.end(),
                                     [](const ColumnPoints& points) { return points.empty(); });
    if (!isEmpty) return kYes;
    Complain("these series have no values between %s and %s", TimeText(view.span.from).c_str(),
             TimeText(view.span.to).c_str());
    return kNo;
}

void StateView(ReportWriter& report, const HistoryReader& reader, const View& view) {
    report.Number("step", view.step / 1000);
    size_t number = 0;
    report.List("series", view.columns, [&](const Column& column) {
        const SeriesInfo& info = reader.Series()[column.series[0]];
        const bool isCounter = info.kind == SeriesKind::kCounter;
        report.OpenObject();
        report.Text("id", column.series.size() == 1 ? SeriesId(info) : column.heading);
        report.Text("unit", info.unit);
        report.Text("kind", isCounter ? "counter" : "gauge");
        report.List("points", view.points[number++], [&](const HistoryPoint& point) {
            report.OpenObject();
            report.Number("time", point.wall / 1000);
            report.Real("minimum", point.minimum);
            report.Real("mean", point.mean);
            report.Real("maximum", point.maximum);
            report.Real("last", point.last);
            report.Close();
        });
        report.Close();
    });
    report.List("marks", view.marks, [&](const Mark& mark) { StateMark(report, mark); });
}

std::string Dim(const std::string& text) {
    return TerminalHasColor() ? "\033[2m" + text + "\033[0m" : text;
}

std::string MarkLine(const View& view, const Mark& mark) {
    return TimeText(mark.time.wall, view.span.from, view.span.to, view.step) + "  -- " +
           MarkText(mark);
}

// A table whose headings may take several lines, and whose numbers end below each other.
class TimeTable {
  public:
    explicit TimeTable(const View& view) : m_view(view) {
        for (size_t i = 0; i < view.columns.size(); ++i) TakeColumn(i);
    }
    void Show(ReportWriter& report);

  private:
    struct Shape {
        std::vector<std::string> heading;
        size_t width = 0;
    };
    using Row = std::vector<const std::string*>;  // a cell of each column, null: none

    void TakeColumn(size_t number);
    // As narrow as its values allow.
    [[nodiscard]] Shape MakeShape(size_t number, bool isNarrow) const;
    void ShowColumns(ReportWriter& report, const std::vector<Shape>& shapes, size_t begin,
                     size_t end);
    [[nodiscard]] std::string Time(int64_t wall) const {
        return TimeText(wall, m_view.span.from, m_view.span.to, m_view.step);
    }

    const View& m_view;
    std::vector<std::vector<std::string>> m_cells;  // of each column
    std::vector<size_t> m_valueWidths;
    std::map<int64_t, Row> m_rows;  // by time
};

void TimeTable::TakeColumn(size_t number) {
    const ColumnPoints& points = m_view.points[number];
    std::vector<std::string>& cells = m_cells.emplace_back();
    cells.reserve(points.size());
    size_t width = 1;
    for (const HistoryPoint& point : points) {
        cells.push_back(m_view.columns[number].format.Text(point.mean));
        width = std::max(width, Width(cells.back()));
        Row& row = m_rows[point.wall];
        row.resize(m_view.columns.size());
        row[number] = &cells.back();
    }
    m_valueWidths.push_back(width);
}

TimeTable::Shape TimeTable::MakeShape(size_t number, bool isNarrow) const {
    constexpr size_t kLeast = 10;
    const std::string& heading = m_view.columns[number].heading;
    const size_t most = isNarrow ? std::max(m_valueWidths[number], kLeast) : heading.size();
    Shape shape{{""}, m_valueWidths[number]};
    for (size_t begin = 0; begin < heading.size();) {
        const size_t sign = heading.find_first_of("_/ ", begin);
        const size_t end = sign == heading.npos ? heading.size() : sign + 1;
        const std::string part = heading.substr(begin, end - begin);
        if (!shape.heading.back().empty() && Width(shape.heading.back() + part) > most) {
            shape.heading.emplace_back();
        }
        shape.heading.back() += part;
        begin = end;
    }
    for (const std::string& line : shape.heading) shape.width = std::max(shape.width, Width(line));
    return shape;
}

void TimeTable::Show(ReportWriter& report) {
    const size_t room = TerminalWidth() == 0 ? SIZE_MAX : TerminalWidth();
    const size_t timeWidth = Time(m_view.span.from).size();
    std::vector<Shape> shapes;
    for (const bool isNarrow : {false, true}) {
        shapes.clear();
        size_t width = timeWidth;
        for (size_t i = 0; i < m_view.columns.size(); ++i) {
            shapes.push_back(MakeShape(i, isNarrow));
            width += shapes.back().width + 2;
        }
        if (width <= room) break;
    }
    // What does not fit beside each other comes one after the other.
    for (size_t begin = 0, end = 0; begin < shapes.size(); begin = end) {
        size_t width = timeWidth;
        do {
            width += shapes[end++].width + 2;
        } while (end < shapes.size() && width + shapes[end].width + 2 <= room);
        if (begin > 0) report.Line("");
        ShowColumns(report, shapes, begin, end);
    }
}

void TimeTable::ShowColumns(ReportWriter& report, const std::vector<Shape>& shapes, size_t begin,
                            size_t end) {
    const auto append = [](std::string& line, const std::string& text, size_t width) {
        line.append(2 + width - std::min(width, Width(text)), ' ');
        line += text;
    };
    const size_t timeWidth = Time(m_view.span.from).size();
    size_t height = 1;
    for (size_t i = begin; i < end; ++i) height = std::max(height, shapes[i].heading.size());
    for (size_t i = 0; i < height; ++i) {
        std::string line = i + 1 == height ? "time" : "";
        line.resize(timeWidth, ' ');
        for (size_t column = begin; column < end; ++column) {
            const std::vector<std::string>& heading = shapes[column].heading;
            const size_t above = height - heading.size();
            append(line, i < above ? "" : heading[i - above], shapes[column].width);
        }
        line.resize(line.find_last_not_of(' ') + 1);
        report.Line(line);
    }
    auto mark = m_view.marks.begin();
    for (const auto& [wall, row] : m_rows) {
        for (; mark != m_view.marks.end() && mark->time.wall <= wall; ++mark) {
            report.Line(Dim(MarkLine(m_view, *mark)));
        }
        std::string line = Time(wall);
        for (size_t i = begin; i < end; ++i) {
            append(line, row[i] != nullptr ? *row[i] : "-", shapes[i].width);
        }
        report.Line(line);
    }
    for (; mark != m_view.marks.end(); ++mark) report.Line(Dim(MarkLine(m_view, *mark)));
}

// All plots have the same time axis, which is below the last.
PlotFrame MakeFrame(const View& view) {
    constexpr size_t kUsual = 80, kHigh = 12, kLow = 5;
    const size_t width = TerminalWidth();
    PlotFrame frame{view.span};
    frame.width = width > 0 ? width : kUsual;
    frame.height = view.columns.size() == 1 ? kHigh : kLow;
    frame.isBraille = ShowsBraille();
    return frame;
}

void ShowPlots(ReportWriter& report, const View& view, const PlotFrame& frame) {
    const bool hasColor = TerminalHasColor();
    const std::string on = hasColor ? "\033[1m" : "", off = hasColor ? "\033[0m" : "";
    for (size_t i = 0; i < view.columns.size(); ++i) {
        report.Line(std::string(on).append(view.columns[i].heading).append(off));
        for (const std::string& line : PlotLines(view.columns[i], view.points[i], frame)) {
            report.Line(line);
        }
    }
    for (const std::string& line : TimeAxisLines(view.marks, frame)) report.Line(line);
    for (const Mark& mark : view.marks) report.Line(Dim(MarkLine(view, mark)));
}

}  // namespace

int ShowHistory(const PerformanceOptions& options, ReportWriter& report) {
    const auto reader = OpenHistory(options);
    if (!reader) return kError;
    auto columns = ChooseColumns(*reader, options.words);
    if (!columns) return kNo;
    const auto span = ChooseSpan(options, *reader, false);
    if (!span) return kNo;
    View view{std::move(*columns), *span, 0, {}, {}};
    const PlotFrame frame = MakeFrame(view);
    constexpr int64_t kRows = 20;
    const int64_t length = span->to - span->from;
    view.step = options.step    ? *options.step
                : options.plots ? DotLength(frame)
                                : RoundStep(length / kRows);
    if (const int result = ReadView(options, *reader, view); result != kYes) return result;
    report.OpenObject();
    ShowOrigin(report, options, *reader);
    StateView(report, *reader, view);
    if (options.asJson) return kYes;
    if (options.plots) {
        ShowPlots(report, view, frame);
    } else {
        TimeTable(view).Show(report);
    }
    return kYes;
}
