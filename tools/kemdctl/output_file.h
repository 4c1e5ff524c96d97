// Files that kemdctl reads and writes for its user, and what it says when it cannot.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string_view>

// "cannot <action> <path>: <why>" from errno; the exit code for it.
int FileError(const char* action, const char* path);

// Writes all of the text to a descriptor; false with errno.
bool WriteAll(int fd, std::string_view text);

using FileSink = std::function<bool(std::string_view)>;
// Gives `produce` a sink for the content of the file, which is there whole or as it was: it is
// written beside its place and renamed. kYes, or kError with a message.
int WriteOutputFile(const char* path, mode_t mode,
                    const std::function<bool(const FileSink&)>& produce);
