// Small files read whole: those of /proc too, whose size is not told.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

// The text of a regular file, as far as `limit`; nothing, with errno, when it cannot be read.
std::optional<std::string> ReadSmallFile(const std::string& path, size_t limit = size_t{1} << 20);
