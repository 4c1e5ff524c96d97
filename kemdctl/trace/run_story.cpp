#include "kemdctl/trace/run_story.h"

#include <array>
#include <cstdio>

#include "kemdctl/facts/process_facts.h"
#include "kemdctl/trace/crashes.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/trace_file.h"
#include "trace_reader/trace_merge.h"

// A log without a header does not name its writer.
static Writing SeeWriters(const TraceMerge& merge) {
    const pid_t daemon = FindDaemon();
    bool isUnseen = false;
    for (const auto& source : merge.Sources()) {
        if (!source->IsOpen()) continue;
        for (const int process : {source->Facts().writer, static_cast<int>(daemon)}) {
            const Writing writing = SeeWriter(process, source->File());
            if (writing == Writing::kYes) return writing;
            isUnseen = isUnseen || writing == Writing::kUnseen;
        }
    }
    return isUnseen ? Writing::kUnseen : Writing::kNo;
}

std::optional<RunStory> ReadRun(const std::vector<std::string>& paths) {
    TraceMerge merge;
    for (const std::string& path : paths) merge.Add(path);
    // What a run said at its start is in the log and in the start-up ring, the rest at the end.
    constexpr uint64_t kMost = 100'000;
    merge.Select(INT64_MIN, INT64_MAX, kMost);
    RunStory story;
    std::vector<int> writers;
    for (TraceRecord record; merge.Next(record);) story.run.Take(record);
    for (const auto& source : merge.Sources()) {
        story.paths.push_back(source->Path());
        story.isWhole = story.isWhole && source->IsGood();
        if (source->Facts().writer != 0) writers.push_back(source->Facts().writer);
        if (source->Problem().empty()) continue;
        Complain("%s: %s", Printable(source->Path()).c_str(), source->Problem().c_str());
    }
    if (story.run.records == 0) return std::nullopt;
    story.crashes = CrashesOf(story.run, writers);
    if (!story.crashes.empty() && !story.crashes.back().isIsolated) {
        story.run.fatal = DescribeCrash(story.crashes.back());
    }
    story.end = story.run.HowEnded(SeeWriters(merge));
    return story;
}

void PutRecord(ReportWriter& report, const TraceRecord& record, const std::string& path) {
    std::array<char, 16> thread{};
    std::snprintf(thread.data(), thread.size(), "%08X", record.thread);
    report.OpenObject();
    report.Text("time", FormatTime(record.time).data());
    report.Text("thread", thread.data());
    if (record.residentKb >= 0) report.Number("residentKb", record.residentKb);
    report.Text("tag", record.tag);
    report.Text("text", record.text);
    report.Text("file", path);
    report.Close();
}
