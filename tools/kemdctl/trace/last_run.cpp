#include "tools/kemdctl/trace/last_run.h"

#include "tools/kemdctl/json.h"
#include "tools/kemdctl/process_facts.h"
#include "tools/kemdctl/text.h"
#include "tools/kemdctl/trace/last_run_facts.h"
#include "tools/trace_reader/prefix.h"
#include "tools/trace_reader/trace_merge.h"
#include "tools/trace_reader/writer.h"

namespace {

using End = LastRun::End;

// A log without a header does not name its writer.
Writing SeeWriters(const TraceMerge& merge) {
    const pid_t daemon = FindDaemon();
    bool isUnseen = false;
    for (const auto& source : merge.Sources()) {
        if (!source->IsOpen()) continue;
        const Writing writing = SeeWriter(daemon, source->File());
        if (source->Facts().isWritten || writing == Writing::kYes) return Writing::kYes;
        isUnseen = isUnseen || writing == Writing::kUnseen || HidesFiles(source->Facts().writer);
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
    if (run.openCall) {
        Write("open call:     " + std::string(run.openCall->name) + ", since " +
              FormatTime(run.openCall->since).data() + "\n");
    }
    std::string modules;
    for (const auto& [name, state] : run.modules) {
        modules += (modules.empty() ? "" : ", ") + Printable(name) + " " + state;
    }
    if (!modules.empty()) Write("modules:       " + modules + "\n");
    Write("last records:\n");
    for (const LastRun::Line& line : run.lastLines) Write("  " + Printable(line.text) + "\n");
}

void PutText(JsonWriter& json, const char* key, std::string_view text) {
    json.Key(key);
    json.Text(text);
}

void ShowAsJson(const LastRun& run, End end) {
    JsonWriter json;
    json.Open('{');
    PutText(json, "end", EndName(end));
    PutText(json, "description", DescribeEnd(run, end));
    PutText(json, run.hasBegin ? "began" : "oldest", FormatTime(run.begin).data());
    PutText(json, "newest", FormatTime(run.end).data());
    if (run.openCall) {
        PutText(json, "openCall", run.openCall->name);
        PutText(json, "openSince", FormatTime(run.openCall->since).data());
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
    for (const LastRun::Line& line : run.lastLines) json.Text(line.text);
    json.Close(']');
    json.Close('}');
    json.Finish();
}

}  // namespace

int ShowLastRun(const std::vector<std::string>& paths, bool asJson) {
    TraceMerge merge;
    for (const std::string& path : paths) merge.Add(path);
    for (const auto& source : merge.Sources()) {
        if (source->IsOpen() && source->Facts().problem.empty()) continue;
        Complain("%s: %s", Printable(source->Path()).c_str(), source->Facts().problem.c_str());
    }
    LastRun run;
    for (TraceRecord record; merge.Next(record);) run.Take(record);
    if (run.records == 0) {
        Complain("no records: nothing is known of a last run");
        return kError;
    }
    const End end = run.HowEnded(SeeWriters(merge));
    if (asJson) {
        ShowAsJson(run, end);
    } else {
        Show(run, end);
    }
    if (end == End::kUnknown) {
        Complain("whether a process still writes the files cannot be seen: only root may ask");
        return kError;
    }
    return end == End::kRunning || end == End::kStopped ? kYes : kNo;
}
