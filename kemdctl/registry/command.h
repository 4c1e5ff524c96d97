// The subcommands of kemdctl registry. Each gets as many words as the table in command.cpp says,
// and returns an exit code.
#pragma once

#include "kemdctl/ui/command.h"

// read.cpp
int RegistryGet(const CommandLine& line);
int RegistryList(const CommandLine& line);
// change.cpp
int RegistrySet(const CommandLine& line);
int RegistryDelete(const CommandLine& line);
// files.cpp
int RegistryExport(const CommandLine& line);
int RegistryImport(const CommandLine& line);
int RegistryRestore(const CommandLine& line);
int RegistryCheck(const CommandLine& line);
