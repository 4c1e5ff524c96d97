// The steps of the start, in the order in which `main` takes them. Initial thread only; no other
// thread exists before the modules start.
#pragma once

#include <csignal>

#include "kemd/module_switch.h"

// Answers "--help" and "--version" if that is the only argument. True when it was; `status` is then
// the exit status.
[[nodiscard]] bool AnswerQuestion(int argc, char** argv, int& status);

// Opens those of the three standard descriptors that are closed on /dev/null, so that no file of
// ours becomes standard error by accident.
void OpenStandardDescriptors();

// A write beyond the limit of file sizes then fails with EFBIG instead of raising a signal.
void IgnoreFileSizeLimit();

// Goes to the background unless the command line has "-n" or "-nodemon". The parent exits here with
// status 0 and releases nothing; the child's standard streams are /dev/null. False when fork fails.
[[nodiscard]] bool Detach(int argc, char** argv);

// Reports on standard error and to the init system that there is no log.
void ReportMissingLog();

// The run mode and the rescan flag; each recognised switch is traced, unknown ones are ignored.
ModuleLoadParams ParseCommandLine(int argc, char** argv);

// The four signals that are blocked in every thread and taken by the signal loop only.
sigset_t WaitSignals();

// Session, directory, file mode mask, and the signal mask that every later thread inherits.
void PrepareProcess();

void WriteBanner();
void OpenSystemLog();

// Introduces the daemon to the system-management bus driver and traces the driver's answer. Warns
// when the daemon is older than the driver. A missing driver or a failed request is only traced. In
// smbus_probe.cpp.
void DiscoverSmbusDriverInfo();

// The process-id file. If it cannot be written, that is reported, and the daemon runs without it.
void CreatePidFile();
void RemovePidFile();
