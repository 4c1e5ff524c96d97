// Files that kemdctl writes for its user, and its messages when a file call fails.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "base/output_file.h"

// Why a call for a file failed, and what may help.
std::string ErrorText(int error);
// "cannot <action> <path>: <why>" from errno; the exit code for it.
int FileError(const char* action, const char* path);

using FileSink = std::function<bool(std::string_view)>;
// Gives `produce` a sink for the content of an output file. kYes, or kError with a message.
int WriteOutputFile(const char* path, mode_t mode,
                    const std::function<bool(const FileSink&)>& produce);
