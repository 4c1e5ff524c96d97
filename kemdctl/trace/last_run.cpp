#include "kemdctl/trace/last_run.h"

#include <array>
#include <cstdio>
#include <optional>

#include "kemdctl/facts/process_facts.h"
#include "kemdctl/trace/last_run_facts.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/json.h"
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

void Show(const LastRun& run, End end) {
    Write("last run:      " + std::string(FormatTime(run.begin).data()) +
          (run.hasBegin ? " to " : " (or before) to ") + FormatTime(run.end).data() + "\n");
    Write("state:         " + Printable(DescribeEnd(run, end)) + "\n");
    if (const LastRun::Call* const call = run.OpenCall()) {
        Write("open call:     " + Printable(call->name) + ", since " +
              FormatTime(call->since).data() + "\n");
    }
    std::string modules;
    for (const auto& [name, state] : run.modules) {
        modules += (modules.empty() ? "" : ", ") + Printable(name) + " " + state;
    }
    if (!modules.empty()) Write("modules:       " + modules + "\n");
    Write("last records:\n");
    for (const KeptRecord& record : run.lastRecords) {
        Write("  " + Printable(record.Get().line) + "\n");
    }
}

void PutText(JsonWriter& json, const char* key, std::string_view text) {
    json.Key(key);
    json.Text(text);
}

// As `-o json` shows it.
void PutRecord(JsonWriter& json, const TraceRecord& record, const std::string& path) {
    std::array<char, 16> thread{};
    std::snprintf(thread.data(), thread.size(), "%08X", record.thread);
    json.Open('{');
    PutText(json, "time", FormatTime(record.time).data());
    PutText(json, "thread", thread.data());
    if (record.residentKb >= 0) {
        json.Key("residentKb");
        json.Number(record.residentKb);
    }
    PutText(json, "tag", record.tag);
    PutText(json, "text", record.text);
    PutText(json, "file", path);
    json.Close('}');
}

struct Story {
    LastRun run;
    End end = End::kUnknown;
    std::vector<std::string> paths;  // by TraceRecord::source
    bool isWhole = true;             // everything could be read
};

// Into an object that is open.
void PutRun(JsonWriter& json, const Story& story) {
    const auto& [run, end, paths, isWhole] = story;
    PutText(json, "end", EndName(end));
    PutText(json, "description", DescribeEnd(run, end));
    PutText(json, run.hasBegin ? "began" : "oldest", FormatTime(run.begin).data());
    PutText(json, "newest", FormatTime(run.end).data());
    if (const LastRun::Call* const call = run.OpenCall()) {
        PutText(json, "openCall", call->name);
        PutText(json, "openSince", FormatTime(call->since).data());
    }
    json.Key("modules");
    json.Open('[');
    for (const auto& [name, state] : run.modules) {
        json.Open('{');
        PutText(json, "file", name);
        PutText(json, "state", state);
        json.Close('}');
    }
    json.Close(']');
    json.Key("lastRecords");
    json.Open('[');
    for (const KeptRecord& kept : run.lastRecords) {
        const TraceRecord record = kept.Get();
        PutRecord(json, record, paths[record.source]);
    }
    json.Close(']');
}

// What cannot be read is reported. Nothing when there are no records.
std::optional<Story> ReadRun(const std::vector<std::string>& paths) {
    TraceMerge merge;
    for (const std::string& path : paths) merge.Add(path);
    // What a run said at its start is in the log and in the start-up ring, the rest at the end.
    constexpr uint64_t kMost = 100'000;
    merge.Select(INT64_MIN, INT64_MAX, kMost);
    Story story;
    for (TraceRecord record; merge.Next(record);) story.run.Take(record);
    for (const auto& source : merge.Sources()) {
        story.paths.push_back(source->Path());
        story.isWhole = story.isWhole && source->IsGood();
        if (source->Problem().empty()) continue;
        Complain("%s: %s", Printable(source->Path()).c_str(), source->Problem().c_str());
    }
    if (story.run.records == 0) return std::nullopt;
    story.end = story.run.HowEnded(SeeWriters(merge));
    return story;
}

void ShowWithKept(const Story& story, const std::optional<Story>& kept, const KeptPlace& place,
                  bool asJson) {
    if (!asJson) {
        Show(story.run, story.end);
        if (!kept) return;
        Write("\nthe newest run that did not end in order (--run 1):\n");
        return Show(kept->run, kept->end);
    }
    JsonWriter json;
    json.Open('{');
    PutRun(json, story);
    if (kept) {
        json.Key("kept");
        json.Open('{');
        PutText(json, "directory", place.path);
        PutRun(json, *kept);
        json.Close('}');
    }
    json.Close('}');
    json.Finish();
}

std::string Kibibytes(uint64_t bytes) {
    return std::to_string((bytes + 1023) / 1024) + " KiB";
}

void ShowKept(size_t number, const KeptPlace& place, const std::optional<Story>& story) {
    const std::string name = place.path.substr(place.path.rfind('/') + 1);
    const std::string span = story ? std::string(FormatTime(story->run.begin).data()) + " to " +
                                         FormatTime(story->run.end).data()
                                   : "no records";
    Write(std::to_string(number) + "  " + name + "  " + Kibibytes(place.size) + "  " + span + "  " +
          (story ? Printable(DescribeEnd(story->run, story->end)) : "") + "\n");
}

void PutKept(JsonWriter& json, size_t number, const KeptPlace& place,
             const std::optional<Story>& story) {
    json.Open('{');
    json.Key("run");
    json.Number(static_cast<int64_t>(number));
    PutText(json, "directory", place.path);
    json.Key("size");
    json.Number(static_cast<int64_t>(place.size));
    if (story) PutRun(json, *story);
    json.Close('}');
}

}  // namespace

int ShowLastRun(const std::vector<std::string>& paths, const std::vector<KeptPlace>& kept,
                bool asJson) {
    const std::optional<Story> story = ReadRun(paths);
    if (!story) {
        Complain("no records: nothing is known of a last run");
        return kError;
    }
    const bool showsKept = story->end == End::kRunning && !kept.empty();
    const KeptPlace before = showsKept ? kept.front() : KeptPlace();
    ShowWithKept(*story, showsKept ? ReadRun(FilesIn(before.path)) : std::nullopt, before, asJson);
    if (story->end == End::kUnknown) {
        Complain("whether a process still writes the files cannot be seen: only root may ask");
        return kError;
    }
    if (!story->isWhole) return kError;
    return story->end == End::kRunning || story->end == End::kStopped ? kYes : kNo;
}

int ListKeptRuns(const std::vector<KeptPlace>& kept, bool asJson) {
    JsonWriter json;
    if (asJson) json.Open('[');
    size_t number = 0;
    for (const KeptPlace& place : kept) {
        const std::optional<Story> story = ReadRun(FilesIn(place.path));
        ++number;
        if (asJson) {
            PutKept(json, number, place, story);
        } else {
            ShowKept(number, place, story);
        }
    }
    if (asJson) json.Close(']');
    if (asJson) json.Finish();
    if (!kept.empty()) return kYes;
    Complain("no run is kept");
    return kNo;
}
