// The subcommands of kemdctl performance. Each returns an exit code.
#pragma once

#include "kemdctl/performance/options.h"

class ReportWriter;

int ListSeries(const PerformanceOptions& options, ReportWriter& report);
int ShowHistory(const PerformanceOptions& options, ReportWriter& report);
int Summarize(const PerformanceOptions& options, ReportWriter& report);
int ShowAround(const PerformanceOptions& options, ReportWriter& report);
int ExportHistory(const PerformanceOptions& options, ReportWriter& report);
// export --html: one page that needs nothing but a browser, in the file `options.html`.
int WritePage(const PerformanceOptions& options, ReportWriter& report);
// The host now, refreshed on a terminal.
int ShowLive(const PerformanceOptions& options, ReportWriter& report);
