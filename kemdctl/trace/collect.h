// kemdctl trace --collect: everything about the trace that support asks for, in one archive.
#pragma once

#include <string>
#include <vector>

// Writes a gzipped tar file, mode 0600, with values of variables that look like secrets masked.
// kYes or kError, which is told.
[[nodiscard]] int CollectFiles(const char* archive, const std::vector<std::string>& paths,
                               bool isQuiet);
