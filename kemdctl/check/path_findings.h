// Whether files and directories, and all that lies on the way to them, are in the hands of root
// alone. What is wrong there is told for each name on the way.
#pragma once

#include <string>

#include "kemdctl/check/findings.h"

// Whether a name leads to /dev/null: so an administrator masks a file.
bool IsMasked(const std::string& path);

// A directory that the daemon needs: there, and nobody else may write into it. One in the place of
// `isShared` may be open for all, as /tmp is. Whether all is well.
bool CheckDirectory(Findings& findings, const std::string& path, bool isShared = false);

// A file or directory that only root may change, or replace by another one. One that is not there
// is told unless `mayBeMissing`; who could make it is told anyway. Whether all is well.
bool CheckInRootsHands(Findings& findings, const std::string& path, bool mayBeMissing = false);
