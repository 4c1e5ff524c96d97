// kemdctl performance summary: the distribution of values over a time.
#include <algorithm>
#include <array>
#include <numeric>
#include <string>

#include "kemdctl/performance/command.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/performance/selection.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/table.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr std::array<double, 3> kShares = {0.50, 0.95, 0.99};

struct Summary {
    double minimum = 0;
    double mean = 0;
    std::array<double, kShares.size()> percentiles{};
    double maximum = 0;
    int64_t minimumAt = 0;
    int64_t maximumAt = 0;
};

// The time that each point stands for: the distance to its nearer neighbour, so that seconds and
// minutes count as what they are, and what is beside a gap does not stand for it.
std::vector<double> Weights(std::span<const HistoryPoint> points) {
    std::vector<double> weights(points.size(), 1);
    for (size_t i = 0; points.size() > 1 && i < points.size(); ++i) {
        const size_t left = i > 0 ? i - 1 : 1, right = i + 1 < points.size() ? i + 1 : i - 1;
        const int64_t distance = std::min(std::abs(points[i].wall - points[left].wall),
                                          std::abs(points[right].wall - points[i].wall));
        weights[i] = std::max(static_cast<double>(distance), 1.0);
    }
    return weights;
}

Summary Summarize(std::span<const HistoryPoint> points) {
    const auto least = std::min_element(
        points.begin(), points.end(),
        [](const auto& one, const auto& other) { return one.minimum < other.minimum; });
    const auto most = std::max_element(
        points.begin(), points.end(),
        [](const auto& one, const auto& other) { return one.maximum < other.maximum; });
    Summary summary{least->minimum, 0, {}, most->maximum, least->wall, most->wall};
    const std::vector<double> weights = Weights(points);
    const double all = std::accumulate(weights.begin(), weights.end(), 0.0);
    std::vector<size_t> order(points.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(),
              [points](size_t one, size_t other) { return points[one].mean < points[other].mean; });
    double below = 0;
    size_t next = 0;
    for (const size_t i : order) {
        below += weights[i];
        summary.mean += points[i].mean * (weights[i] / all);
        while (next < kShares.size() && below >= kShares[next] * all * (1 - 1e-12)) {
            summary.percentiles[next++] = points[i].mean;
        }
    }
    return summary;
}

void StateSummary(ReportWriter& report, const SeriesInfo& info, const Column& column, size_t count,
                  const Summary& summary) {
    report.OpenObject();
    report.Text("id", column.series.size() == 1 ? SeriesId(info) : column.heading);
    report.Text("unit", info.unit);
    report.Text("kind", info.kind == SeriesKind::kCounter ? "counter" : "gauge");
    report.Number("points", count);
    if (count > 0) {
        report.Real("minimum", summary.minimum);
        report.Number("minimumAt", summary.minimumAt / 1000);
        report.Real("mean", summary.mean);
        report.Real("percentile50", summary.percentiles[0]);
        report.Real("percentile95", summary.percentiles[1]);
        report.Real("percentile99", summary.percentiles[2]);
        report.Real("maximum", summary.maximum);
        report.Number("maximumAt", summary.maximumAt / 1000);
    }
    report.Close();
}

TableRow RowOf(const Column& column, HistorySpan span, size_t count, const Summary& summary) {
    TableRow row = {column.heading};
    if (count == 0) {
        row.insert(row.end(), 7, Cell("-"));
        return row;
    }
    row.emplace_back(column.format.Text(summary.minimum));
    row.emplace_back(column.format.Text(summary.mean));
    for (const double value : summary.percentiles) row.emplace_back(column.format.Text(value));
    row.emplace_back(column.format.Text(summary.maximum));
    row.emplace_back(TimeText(summary.maximumAt, span.from, span.to, 0));
    return row;
}

}  // namespace

int Summarize(const PerformanceOptions& options, ReportWriter& report) {
    const auto reader = OpenHistory(options);
    if (!reader) return kError;
    const auto columns = ChooseColumns(*reader, options.words);
    if (!columns) return kNo;
    const auto span = ChooseSpan(options, *reader, false);
    if (!span) return kNo;
    report.OpenObject();
    ShowOrigin(report, options, *reader);
    report.Number("from", span->from / 1000);
    report.Number("to", span->to / 1000);
    report.Line("from " + TimeText(span->from) + " to " + TimeText(span->to - 1));
    report.OpenArray("series");
    std::vector<TableRow> rows = {
        {"series", "minimum", "mean", "50 %", "95 %", "99 %", "maximum", "maximum at"}};
    // Some at a time: a day has 86,400 samples of each.
    constexpr size_t kAtOnce = 8;
    for (size_t begin = 0; begin < columns->size(); begin += kAtOnce) {
        const std::span<const Column> part(&(*columns)[begin],
                                           std::min(kAtOnce, columns->size() - begin));
        const std::vector<ColumnPoints> points = ReadColumns(*reader, part, *span, 0);
        for (size_t i = 0; i < part.size(); ++i) {
            const Summary summary = points[i].empty() ? Summary() : Summarize(points[i]);
            StateSummary(report, reader->Series()[part[i].series[0]], part[i], points[i].size(),
                         summary);
            rows.push_back(RowOf(part[i], *span, points[i].size(), summary));
        }
    }
    ShowTable(report, rows);
    return kYes;
}
