// Decompression through the gzip program, without a shell and without files.
#pragma once

#include <cstdint>

#include "services/base/unique_fd.h"

struct Unpacked {
    UniqueFd file;           // in memory only; not open when there was no memory or no gzip
    bool isDamaged = false;  // gzip complained: there is what came before
    bool isTooLong = false;  // more than the limit: there is what came before
};

// Unpacks the open file `fd` from its start, at most `limit` bytes.
[[nodiscard]] Unpacked UnpackGzip(int fd, uint64_t limit);
