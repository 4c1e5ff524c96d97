// Opens regular files only: whoever puts a FIFO, a device or a directory in a file's place makes
// nobody wait and nobody read without end.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "base/unique_fd.h"

// As open(2), close-on-exec. With errno on failure; what is no regular file gives EISDIR or EINVAL.
inline UniqueFd OpenRegularFile(const char* path, int flags, mode_t mode = 0) {
    UniqueFd file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return {};
    if (S_ISREG(status.st_mode)) return file;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return {};
}
