#include "kemdctl/performance/command.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/performance/selection.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/table.h"
#include "kemdctl/ui/text.h"

int ListSeries(const PerformanceOptions& options, ReportWriter& report) {
    const auto reader = OpenHistory(options);
    if (!reader) return kError;
    const auto chosen = ChooseSeries(reader->Series(), options.words);
    if (!chosen) return kNo;
    report.OpenObject();
    ShowOrigin(report, options, *reader);
    std::vector<TableRow> rows = {{"series", "kind", "unit", "what it is"}};
    report.List("series", *chosen, [&](uint32_t number) {
        const SeriesInfo& info = reader->Series()[number];
        const char* const kind = info.kind == SeriesKind::kCounter ? "counter" : "gauge";
        rows.push_back({Printable(ShortId(info)), kind,
                        info.unit.empty() ? "-" : Printable(info.unit), Printable(info.help)});
        report.Object({}, [&] {
            report.Text("id", SeriesId(info));
            report.Text("name", info.name);
            report.Text("kind", kind);
            report.Text("unit", info.unit);
            report.Text("help", info.help);
        });
    });
    ShowTable(report, rows);
    return kYes;
}
