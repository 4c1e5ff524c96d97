#include "kemdctl/performance/html_events.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <string_view>

#include "base/crash_file.h"
#include "kemdctl/performance/format.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/trace/crashes.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/run_marks.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/trace_merge.h"

namespace {

constexpr size_t kMostRecords = 5000;
constexpr size_t kLongestText = 1000;

void AddMarks(HistoryReader& reader, HistorySpan span, std::vector<PageEvent>& events) {
    for (const Mark& mark : reader.Marks(span)) {
        if (mark.kind == MarkKind::kProcesses) continue;
        const bool isImportant = mark.kind == MarkKind::kReboot || mark.kind == MarkKind::kAlarm;
        events.push_back({mark.time.wall, MarkWord(mark.kind), mark.value, mark.text, isImportant});
    }
}

// Null: neither a failure nor a step of a run.
const char* WordOf(const TraceRecord& record) {
    if (const auto mark = ParseRunMark(record)) {
        if (mark->kind == RunMark::Kind::kRunBegin) return "begin";
        if (mark->kind == RunMark::Kind::kExit) return "exit";
        if (mark->kind == RunMark::Kind::kFatal) return "error";
    }
    constexpr std::string_view kFailures[] = {"ERROR", "FATAL", "FAILED", "WARNING"};
    const bool isFailure = std::any_of(
        std::begin(kFailures), std::end(kFailures),
        [&record](std::string_view word) { return record.text.find(word) != record.text.npos; });
    return isFailure ? "error" : nullptr;
}

// Those of the host, or those that were named: a history from elsewhere has its trace elsewhere.
std::vector<std::string> FilesOf(const PerformanceOptions& options) {
    TraceOptions trace;
    trace.paths = options.traces;
    if (trace.paths.empty() && options.file != nullptr) return {};
    std::vector<std::string> files = ChooseFiles(trace);
    const auto kept = ListKept(options.traces);
    for (const KeptPlace& place : kept.value_or(std::vector<KeptPlace>())) {
        const std::vector<std::string> more = FilesIn(place.path);
        files.insert(files.end(), more.begin(), more.end());
    }
    return files;
}

void AddRecords(const PerformanceOptions& options, HistorySpan span, std::vector<PageEvent>& events,
                std::vector<std::string>& notes) {
    TraceMerge merge;
    for (const std::string& file : FilesOf(options)) merge.Add(file);
    merge.Select(LocalTime(span.from / kNsPerMs), LocalTime(span.to / kNsPerMs));
    std::vector<PageEvent> records;
    size_t leftOut = 0;
    for (TraceRecord record; merge.Next(record);) {
        const char* const word = record.kind == RecordKind::kRecord ? WordOf(record) : nullptr;
        if (word == nullptr) continue;
        if (records.size() == 2 * kMostRecords) {
            records.erase(records.begin(), records.begin() + kMostRecords);
            leftOut += kMostRecords;
        }
        std::string text = std::string(record.tag) + " " + std::string(record.text);
        text.resize(std::min(text.size(), kLongestText));
        records.push_back({UtcTime(record.time) * kNsPerMs, word, 0, std::move(text), false});
    }
    if (records.size() > kMostRecords) {
        leftOut += records.size() - kMostRecords;
        records.erase(records.begin(), records.end() - kMostRecords);
    }
    if (leftOut > 0) {
        notes.push_back(Counted(leftOut, "older record") + " of the trace are left out.");
    }
    (void)ReportErrors(merge);
    std::move(records.begin(), records.end(), std::back_inserter(events));
}

void AddCrashes(const PerformanceOptions& options, HistorySpan span,
                std::vector<PageEvent>& events) {
    if (options.file != nullptr) return;
    const auto crashes = ReadCrashes();
    if (!crashes) {
        Complain("note: crashes are not on the page: %s", CrashFileFault(errno).c_str());
        return;
    }
    for (const CrashRecord& crash : *crashes) {
        const int64_t wall = crash.time * kNsPerMs;
        if (!crash.enabled.empty() || wall < span.from || wall >= span.to) continue;
        events.push_back({wall, "crash", 0, DescribeCrash(crash), true});
    }
}

}  // namespace

std::vector<PageEvent> CollectEvents(const PerformanceOptions& options, HistoryReader& reader,
                                     HistorySpan span, std::vector<std::string>& notes) {
    std::vector<PageEvent> events;
    AddMarks(reader, span, events);
    AddRecords(options, span, events, notes);
    AddCrashes(options, span, events);
    std::stable_sort(events.begin(), events.end(),
                     [](const PageEvent& a, const PageEvent& b) { return a.wall < b.wall; });
    return events;
}
