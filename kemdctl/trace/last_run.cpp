#include <optional>

#include "kemdctl/trace/crashes.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/run_story.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"

namespace {

using End = LastRun::End;

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

// Into an object that is open. People see less of a run in a list: the caller has a line for it.
void Show(ReportWriter& report, const RunStory& story, bool isListed) {
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

std::string Kibibytes(uint64_t bytes) {
    return std::to_string((bytes + 1023) / 1024) + " KiB";
}

void List(ReportWriter& report, size_t number, const KeptPlace& place) {
    const std::optional<RunStory> story = ReadRun(FilesIn(place.path));
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

void ShowWithKept(ReportWriter& report, const RunStory& story, const std::vector<KeptPlace>& kept) {
    const bool mayShowKept = story.end == End::kRunning && !kept.empty();
    const std::optional<RunStory> before =
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
    const std::optional<RunStory> story = ReadRun(files);
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
