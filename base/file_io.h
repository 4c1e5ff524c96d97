// Whole reads and writes, and opening what is a regular file. Interrupted and partial calls go on;
// an error is never taken for the end of the file. Any thread; nothing here is traced.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

// What a read brought. Fewer bytes than asked for and no error: the end of the file.
struct ReadResult {
    size_t count = 0;
    int error = 0;  // an errno number
};

// At the file position.
[[nodiscard]] ReadResult ReadFully(int fd, void* buffer, size_t size);
[[nodiscard]] ReadResult ReadFullyAt(int fd, void* buffer, size_t size, off_t offset);

// False with errno when not all was written; `written` then says how much was.
[[nodiscard]] bool WriteFully(int fd, std::string_view bytes, size_t* written = nullptr);
[[nodiscard]] bool WriteFullyAt(int fd, std::string_view bytes, off_t offset);

// As open(2), close-on-exec. With errno on failure; what is no regular file gives EISDIR or EINVAL,
// so that a FIFO or a device in a file's place is never waited for or read forever.
[[nodiscard]] UniqueFd OpenRegularFile(const char* path, int flags, mode_t mode = 0);

// The first `limit` bytes of a regular file, those of /proc too, whose size is not known before;
// nothing, with errno, when it cannot be read. Throws std::bad_alloc.
[[nodiscard]] std::optional<std::string> ReadTextFile(const std::string& path,
                                                      size_t limit = size_t{1} << 20);
