// A run of the daemon, as its trace files and the crash file tell of it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/crash_file.h"
#include "kemdctl/trace/last_run_facts.h"
#include "trace_reader/record.h"

class ReportWriter;

struct RunStory {
    LastRun run;
    LastRun::End end = LastRun::End::kUnknown;
    std::vector<std::string> paths;  // by TraceRecord::source
    std::vector<CrashRecord> crashes;
    bool isWhole = true;  // everything could be read
};

// The last one in these files. What cannot be read is reported. Nothing when there are no records.
[[nodiscard]] std::optional<RunStory> ReadRun(const std::vector<std::string>& paths);

// As `-o json` shows it.
void PutRecord(ReportWriter& report, const TraceRecord& record, const std::string& path);
