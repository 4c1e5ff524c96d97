// What kemdctl trace shows: the records or, in their place, one of its reports. A new report takes
// a source file, its function here and its row in the table of options.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kemdctl/trace/sink.h"
#include "kemdctl/ui/report.h"

struct CommandLine;
struct TraceOptions;

// All return the exit code. What cannot be read is reported.

// --header: what the files say about the process that wrote them. kNo: none has a header.
[[nodiscard]] int ShowHeaders(const TraceOptions& options, const std::vector<std::string>& files,
                              ReportWriter& report);
// --verify: whether the files are sound, for monitoring. kNo: findings.
[[nodiscard]] int VerifyFiles(const TraceOptions& options, const std::vector<std::string>& files,
                              ReportWriter& report);
// --collect: everything about the trace that support asks for, in a gzipped tar file of mode 0600,
// with values of variables that look like secrets masked.
[[nodiscard]] int CollectFiles(const TraceOptions& options, const std::vector<std::string>& files,
                               ReportWriter& report);

// `kemdctl trace level`: the level in force of the running daemon, and changing it.
[[nodiscard]] int ShowOrSetLevel(CommandLine& line, ReportWriter& report);

// --last-run: how the last run of the daemon ended and, while it runs, the newest one that was
// kept. kNo: it was killed, or died at start; kError: it has no exit message, and its processes
// cannot be seen.
[[nodiscard]] int ShowLastRun(const TraceOptions& options, ReportWriter& report);
// --list-runs: those that were kept. kNo: none.
[[nodiscard]] int ListKeptRuns(const TraceOptions& options, ReportWriter& report);

// The chosen records, shown or handed to one of the reports below, to the end of the files or as
// long as they are written.
[[nodiscard]] int ShowRecords(const TraceOptions& options, const std::vector<std::string>& files,
                              ReportWriter& report);
[[nodiscard]] std::unique_ptr<RecordSink> MakeCountSink(const TraceOptions& options,
                                                        ReportWriter& report);
// --stats: the records in numbers. Memory does not grow with them.
[[nodiscard]] std::unique_ptr<RecordSink> MakeStatsSink(const TraceOptions& options,
                                                        ReportWriter& report);
// --export: the Trace Event Format (JSON) of timeline viewers. --html: one page that needs nothing
// but a browser; it keeps the newest records, up to a limit of number and of bytes, and says how
// many were left out. Either file is there whole when the sink has finished, or as it was.
[[nodiscard]] std::unique_ptr<RecordSink> MakeTimelineSink(const TraceOptions& options,
                                                           ReportWriter& report);
[[nodiscard]] std::unique_ptr<RecordSink> MakeHtmlSink(const TraceOptions& options,
                                                       ReportWriter& report);
