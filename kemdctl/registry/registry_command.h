// The subcommands of kemdctl registry. Each gets as many words as the table in registry_command.cpp
// says, and returns an exit code.
#pragma once

#include "kemdctl/ui/command.h"

// registry_read.cpp
int RegistryGet(const CommandLine& line);
int RegistryList(const CommandLine& line);
// registry_change.cpp
int RegistrySet(const CommandLine& line);
int RegistryDelete(const CommandLine& line);
// registry_files.cpp
int RegistryExport(const CommandLine& line);
int RegistryImport(const CommandLine& line);
int RegistryRestore(const CommandLine& line);
int RegistryCheck(const CommandLine& line);
