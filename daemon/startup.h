// The steps of the start, in the order in which `main` takes them; those that a host of modules
// takes too are in base/process_setup.h. Initial thread only; no other thread exists before the
// modules start.
#pragma once

#include "kemd/module_switch.h"

// Answers "--help" and "--version" if that is the only argument. True when it was; `status` is then
// the exit status.
[[nodiscard]] bool AnswerQuestion(int argc, char** argv, int& status);

// Goes to the background unless the command line has "-n" or "-nodemon". The parent exits here with
// status 0 and releases nothing; the child's standard streams are /dev/null. False when fork fails.
[[nodiscard]] bool Detach(int argc, char** argv);

// Reports on standard error and to the init system that there is no log.
void ReportMissingLog();

// The run mode and the rescan flag; each recognised switch is traced, unknown ones are ignored.
ModuleLoadParams ParseCommandLine(int argc, char** argv);

void WriteBanner();
void OpenSystemLog();

// Introduces the daemon to the system-management bus driver and traces the driver's answer. Warns
// when the daemon is older than the driver. A missing driver or a failed request is only traced. In
// smbus_probe.cpp.
void DiscoverSmbusDriverInfo();

// The process-id file. If it cannot be written, that is reported, and the daemon runs without it.
void CreatePidFile();
void RemovePidFile();
