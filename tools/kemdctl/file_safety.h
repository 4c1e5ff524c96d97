// Whether files and directories are in the hands of root alone.
#pragma once

#include <string>

#include "tools/kemdctl/finding.h"

// A directory that the daemon needs, owned by root and writable by nobody else. `make`: the command
// that makes it. A directory in the place of `isShared` may be open for all, as /tmp is. Whether
// all is well.
bool CheckDirectory(Findings& findings, const std::string& path, const std::string& make,
                    bool isShared = false);

// A file that the daemon loads: nobody but root may change it, or put another one in its place at
// any of the directories above. Whether all is well.
bool CheckCode(Findings& findings, const std::string& path);

// Owner and mode of one file or directory.
bool CheckOwnerAndMode(Findings& findings, const std::string& path, bool isShared = false);
