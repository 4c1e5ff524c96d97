// What the crash file says about a run of the daemon.
#pragma once

#include <vector>

#include "base/crash_file.h"
#include "kemdctl/trace/last_run_facts.h"
#include "kemdctl/ui/report.h"

// That of the run's own process, if it is one of `writers` (empty: they are not known), is the last
// one; those before it are of modules in processes of their own. A file that cannot be read is
// reported.
[[nodiscard]] std::vector<CrashRecord> CrashesOf(const LastRun& run,
                                                 const std::vector<int>& writers);

// "signal 11 (SIGSEGV), module fan"
[[nodiscard]] std::string DescribeCrash(const CrashRecord& crash);

// Their values and, unless in a list, their lines. Addresses are shown as function and line, where
// addr2line is there and knows them.
void ShowCrashes(ReportWriter& report, const std::vector<CrashRecord>& crashes, bool isListed);
