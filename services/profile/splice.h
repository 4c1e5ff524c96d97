// Changing a part of an open text file in place, all or nothing: a change that cannot be written
// whole is taken back. No memory exhaustion leaves these functions; a file is then as it was.
#pragma once

#include <sys/types.h>

#include <string_view>

// Puts `text` in the place of the bytes from `start` to `end`; what follows moves along.
[[nodiscard]] bool SpliceFile(int fd, off_t start, off_t end, std::string_view text);

// The file is open for appending (O_APPEND): others may append to it at the same time.
[[nodiscard]] bool AppendToFile(int fd, std::string_view text);
