#include <array>
#include <cstdio>
#include <optional>

#include "kemdctl/facts/process_facts.h"
#include "kemdctl/trace/crashes.h"
#include "kemdctl/trace/last_run_facts.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_file.h"
#include "trace_reader/trace_merge.h"

namespace {

using End = LastRun::End;

// A log without a header does not name its writer.
Writing SeeWriters(const TraceMerge& merge) {
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

const char* EndName(End end) {
    switch (end) {
        case End::kRunning:
            return "running";
        case End::kStopped:
            return "stopped";
        case End::kKilled:
            return "killed";
        case End::kDiedAtStart:
            return "died at start";
        case End::kUnknown:
            return "unknown";
        case End::kDied:
            break;
    }
    return "died";
}

struct Story {
    LastRun run;
    End end = End::kUnknown;
    std::vector<std::string> paths;  // by TraceRecord::source
    std::vector<CrashRecord> crashes;
    bool isWhole = true;  // everything could be read
};

// As `-o json` shows it.
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

// Into an object that is open. People see less of a run in a list: the caller has a line for it.
void Show(ReportWriter& report, const Story& story, bool isListed) {
    const LastRun& run = story.run;
    const std::string begin = FormatTime(run.begin).data(), end = FormatTime(run.end).data();
    const std::string state = DescribeEnd(run, story.end);
    const auto line = [&report, isListed](std::string_view label, const std::string& text) {
        if (!isListed) report.Field(label, text);
    };
    report.SetColumn(15);
    report.Text("end", EndName(story.end));
    report.Text("description", state);
    report.Text(run.hasBegin ? "began" : "oldest", begin);
    report.Text("newest", end);
    line("last run", begin + (run.hasBegin ? " to " : " (or before) to ") + end);
    line("state", Printable(state));
    if (const LastRun::Call* const call = run.OpenCall()) {
        const std::string since = FormatTime(call->since).data();
        report.Text("openCall", call->name);
        report.Text("openSince", since);
        line("open call", Printable(call->name) + ", since " + since);
    }
    std::string modules;
    report.List("modules", run.modules, [&](const auto& module) {
        const auto& [name, its] = module;
        modules += (modules.empty() ? "" : ", ") + Printable(name) + " " + its;
        report.OpenObject();
        report.Text("file", name);
        report.Text("state", its);
        report.Close();
    });
    if (!modules.empty()) line("modules", modules);
    ShowCrashes(report, story.crashes, isListed);
    if (!isListed) report.Line("last records:");
    report.List("lastRecords", run.lastRecords, [&](const KeptRecord& kept) {
        const TraceRecord record = kept.Get();
        PutRecord(report, record, story.paths[record.source]);
        if (!isListed) report.Line("  " + Printable(record.line));
    });
}

// What cannot be read is reported. Nothing when there are no records.
std::optional<Story> ReadRun(const std::vector<std::string>& paths) {
    TraceMerge merge;
    for (const std::string& path : paths) merge.Add(path);
    // What a run said at its start is in the log and in the start-up ring, the rest at the end.
    constexpr uint64_t kMost = 100'000;
    merge.Select(INT64_MIN, INT64_MAX, kMost);
    Story story;
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

std::string Kibibytes(uint64_t bytes) {
    return std::to_string((bytes + 1023) / 1024) + " KiB";
}

void List(ReportWriter& report, size_t number, const KeptPlace& place) {
    const std::optional<Story> story = ReadRun(FilesIn(place.path));
    const std::string name = place.path.substr(place.path.rfind('/') + 1);
    const std::string span = story ? std::string(FormatTime(story->run.begin).data()) + " to " +
                                         FormatTime(story->run.end).data()
                                   : "no records";
    report.OpenObject();
    report.Number("run", number);
    report.Text("directory", place.path);
    report.Number("size", place.size);
    report.Line(std::to_string(number) + "  " + name + "  " + Kibibytes(place.size) + "  " + span +
                "  " + (story ? Printable(DescribeEnd(story->run, story->end)) : ""));
    if (story) Show(report, *story, true);
    report.Close();
}

void ShowWithKept(ReportWriter& report, const Story& story, const std::vector<KeptPlace>& kept) {
    const bool mayShowKept = story.end == End::kRunning && !kept.empty();
    const std::optional<Story> before =
        mayShowKept ? ReadRun(FilesIn(kept.front().path)) : std::nullopt;
    report.OpenObject();
    Show(report, story, false);
    if (!before) return;
    report.Line("");
    report.Line("the newest run that did not end in order (--run 1):");
    report.OpenObject("kept");
    report.Text("directory", kept.front().path);
    Show(report, *before, false);
    report.Close();
}

}  // namespace

// As long as no file of a later run is there, the newest one that was kept is the last run.
int ShowLastRun(const TraceOptions& options, ReportWriter& report) {
    const std::vector<KeptPlace> kept = ListKept(options.paths).value_or(std::vector<KeptPlace>());
    std::vector<std::string> files = ChooseFiles(options);
    if (files.empty() && !options.run && !kept.empty()) files = FilesIn(kept.front().path);
    if (files.empty()) return kError;
    const std::optional<Story> story = ReadRun(files);
    if (!story) {
        Complain("no records: nothing is known of a last run");
        return kError;
    }
    ShowWithKept(report, *story, kept);
    if (story->end == End::kUnknown) {
        Complain("whether a process still writes the files cannot be seen: only root may ask");
        return kError;
    }
    if (!story->isWhole) return kError;
    return story->end == End::kRunning || story->end == End::kStopped ? kYes : kNo;
}

int ListKeptRuns(const TraceOptions& options, ReportWriter& report) {
    const auto kept = ListKept(options.paths);
    if (!kept) return kError;
    report.OpenArray();
    for (size_t i = 0; i < kept->size(); ++i) List(report, i + 1, (*kept)[i]);
    if (!kept->empty()) return kYes;
    Complain("no run is kept");
    return kNo;
}
