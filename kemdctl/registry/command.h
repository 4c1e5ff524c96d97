// The subcommands of kemdctl registry. Each gets as many words as the table in command.cpp says,
// and returns an exit code.
#pragma once

#include "kemdctl/ui/command.h"

class ReportWriter;

// read.cpp
int RegistryGet(const CommandLine& line, ReportWriter& report);
int RegistryList(const CommandLine& line, ReportWriter& report);
// change.cpp
int RegistrySet(const CommandLine& line, ReportWriter& report);
int RegistryDelete(const CommandLine& line, ReportWriter& report);
// files.cpp
int RegistryExport(const CommandLine& line, ReportWriter& report);
int RegistryImport(const CommandLine& line, ReportWriter& report);
int RegistryRestore(const CommandLine& line, ReportWriter& report);
int RegistryCheck(const CommandLine& line, ReportWriter& report);
