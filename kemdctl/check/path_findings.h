// Whether files and directories, and every directory and link on the way to them, can be changed by
// root alone. Each that others can change is a finding.
#pragma once

#include <string>

#include "kemdctl/check/findings.h"

// Whether a name leads to /dev/null, which is how an administrator masks a file.
bool IsMasked(const std::string& path);

// A directory that the daemon needs and only root may write into; with `isShared` it may be like
// /tmp. Whether all is well.
bool CheckDirectory(Findings& findings, const std::string& path, bool isShared = false);

// A file or directory that only root may change or replace. A missing one is reported unless it
// `mayBeMissing`; that others could create it is reported in any case. Whether all is well.
bool CheckInRootsHands(Findings& findings, const std::string& path, bool mayBeMissing = false);
