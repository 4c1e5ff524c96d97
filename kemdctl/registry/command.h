// The subcommands of kemdctl registry. Each gets as many words as the table allows and returns an
// exit code.
#pragma once

#include <array>
#include <string_view>

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

struct Subcommand {
    std::string_view name;
    size_t minWords;
    size_t maxWords;
    std::array<std::string_view, 2> options;
    int (*run)(const CommandLine& line, ReportWriter& report);
    const char* help;
};
inline constexpr Subcommand kSubcommands[] = {
    {"get", 2, 2, {"--json", "--expand"}, RegistryGet, R"(
  get [--expand] [--json] KEY VALUE   prints data; --expand replaces %NAME%)"},
    {"list", 0, 1, {"--json", "-r"}, RegistryList, R"(
  list [-r] [--json] [KEY]   shows subkeys and values; -r: and all below)"},
    {"set", 4, 4, {}, RegistrySet, R"(
  set KEY VALUE TYPE DATA    stores a value and makes missing keys; TYPE is
                             string, expand, number or binary (hex digits))"},
    {"delete", 1, 2, {}, RegistryDelete, R"(
  delete KEY [VALUE]         deletes a value, or a key with all below it)"},
    {"export", 0, 1, {}, RegistryExport, R"(
  export [FILE]              writes the store as a registry file)"},
    {"import", 1, 1, {"--force"}, RegistryImport, R"(
  import [--force] FILE|-    replaces the root keys that FILE has; a file with
                             findings only with --force)"},
    {"check", 1, 1, {"--json"}, RegistryCheck, R"(
  check [--json] FILE        says what in a file is skipped or misread)"},
    {"restore", 0, 0, {"--default"}, RegistryRestore, R"(
  restore [--default]        makes registry.old, or registry.default, the store)"},
};
