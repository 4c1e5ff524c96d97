// What a process that loads modules does before it loads the first one: the daemon, and the host
// that stands in for it. Initial thread only; no other thread exists yet.
#pragma once

#include <csignal>

// Opens those of the three standard descriptors that are closed on /dev/null, so that no file of
// ours becomes standard error by accident.
void OpenStandardDescriptors();

// A write beyond the limit of file sizes then fails with EFBIG instead of raising a signal.
void IgnoreFileSizeLimit();

// The four signals that are blocked in every thread and taken by the signal loop only.
sigset_t WaitSignals();

// Session, directory, file mode mask, and the signal mask that every later thread inherits.
void PrepareProcess();
