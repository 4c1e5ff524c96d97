// The commands of kemdctl. Each returns an exit code and states its result in the report, which
// main finishes.
#pragma once

#include <string_view>

#include "kemdctl/ui/command.h"

class ReportWriter;

int RunCheck(CommandLine& line, ReportWriter& report);
int RunInventory(CommandLine& line, ReportWriter& report);
int RunModules(CommandLine& line, ReportWriter& report);
int RunNetwork(CommandLine& line, ReportWriter& report);
int RunPerformance(CommandLine& line, ReportWriter& report);
int RunPrepare(CommandLine& line, ReportWriter& report);
int RunRegistry(CommandLine& line, ReportWriter& report);
int RunStatus(CommandLine& line, ReportWriter& report);
int RunTrace(CommandLine& line, ReportWriter& report);
int RunXml(CommandLine& line, ReportWriter& report);

struct Command {
    std::string_view name;
    const char* summary;
    int (*run)(CommandLine& line, ReportWriter& report);
    std::string_view shortName = {};
};
inline constexpr Command kCommands[] = {
    {"check", "look for what keeps kemd from working, and say what to do", RunCheck},
    {"inventory", "show the hardware and volumes of this host, and what changed", RunInventory},
    {"modules", "show, start, stop and ask the modules of the running kemd", RunModules},
    {"network", "show network interfaces, and what changes about them", RunNetwork},
    {"performance", "show the history of CPU, memory, disks, network (short: perf)", RunPerformance,
     "perf"},
    {"prepare", "keep a crash's trace, clean up; the service runs it before a start", RunPrepare},
    {"registry", "read, change, check and restore the suite's registry", RunRegistry},
    {"status", "show whether kemd runs, its lock, its trace and its modules", RunStatus},
    {"trace", "show the records of its trace files in one order", RunTrace},
    {"xml", "check XML documents, and write them another way", RunXml},
};
