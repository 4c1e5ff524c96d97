// The look-ups of kemdctl check. Each adds what it finds, at least one finding.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kemdctl/check/findings.h"
#include "kemdctl/facts/daemon_environment.h"
#include "kemdctl/facts/daemon_state.h"

struct DaemonFacts {
    DaemonState state;
    DaemonEnvironment environment;
};

// trace_config.cpp: the configuration directory, its files, the file of variables, and what the
// daemon makes of them all.
void CheckTraceConfig(Findings& findings, const DaemonFacts& daemon);
// directories.cpp: the directories, and the space that their files need.
void CheckDirectories(Findings& findings, const DaemonFacts& daemon);
// switch_library.cpp
void CheckSwitchLibrary(Findings& findings, const DaemonFacts& daemon);
void CheckModules(Findings& findings, const DaemonFacts& daemon);
// registry_files.cpp
void CheckRegistryFiles(Findings& findings, const DaemonFacts& daemon);
// leftovers.cpp: lock file, process-id file, run-level file.
void CheckLeftovers(Findings& findings, const DaemonFacts& daemon);

// Parts of CheckTraceConfig.

// default_file.cpp: the file of variables.
void CheckDefaultFile(Findings& findings);
// trace_section.cpp: the keys of one section, as the daemon finds them.
void CheckTraceSection(Findings& findings, const std::string& path, std::string_view section,
                       bool isGlobal);
// One number of such a section.
void CheckNumberKey(Findings& findings, const std::string& path, std::string_view section,
                    std::string_view key);
// What the daemon makes of a number's text; nothing when that is the number from 0 to `largest`
// that the whole text is. Base 0 is that of the files: C notation.
std::optional<int32_t> FindMisreadNumber(std::string_view text, int base, int64_t largest);
// trace_limits.cpp: the sizes of log and ring buffers by the settings in force.
void CheckTraceLimits(Findings& findings, const DaemonEnvironment& environment,
                      const TraceSettings& settings);
