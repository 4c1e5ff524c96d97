// The steps that bring the process up, in the order in which `main` takes them. Initial thread
// only; no thread exists before the modules start.
#pragma once

#include <csignal>

#include "kemd/module_switch.h"

// Prints what "--help" or "--version" asks for, each as the only argument. True when one did;
// `status` is the exit status then.
[[nodiscard]] bool AnswerQuestion(int argc, char** argv, int& status);

// Opens what is closed of the three standard descriptors on /dev/null, so that no file of ours
// becomes standard error by accident.
void OpenStandardDescriptors();

// A file that has reached the limit of file sizes is a file that is full: EFBIG, not a signal.
void IgnoreFileSizeLimit();

// Goes to the background unless the command line says "-n" or "-nodemon". The parent ends here,
// with exit status 0 and without giving up anything; the child's standard streams are /dev/null.
// False when there is no child.
[[nodiscard]] bool Detach(int argc, char** argv);

// Says to whoever started the daemon that it keeps no log.
void ReportMissingLog();

// The run mode and the rescan flag; each recognised switch is traced, unknown ones are ignored.
ModuleLoadParams ParseCommandLine(int argc, char** argv);

// The four signals that are blocked in every thread and taken by the signal loop only.
sigset_t WaitSignals();

// Session, directory, file mode mask, and the signal mask that every later thread inherits.
void PrepareProcess();

void WriteBanner();
void OpenSystemLog();

// Introduces the daemon to the system-management bus driver and traces what the driver knows. Warns
// when the daemon is older than the driver. A missing driver or a failing request is traced and
// otherwise of no consequence. In smbus_probe.cpp.
void DiscoverSmbusDriverInfo();

// The process id file. Failing to write it is reported; the daemon runs on without.
void CreatePidFile();
void RemovePidFile();
