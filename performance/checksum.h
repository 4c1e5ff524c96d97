// CRC-32C (Castagnoli), which finds torn and damaged parts of the history. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// Goes on from `before`, the checksum of what comes before these bytes.
[[nodiscard]] uint32_t Crc32c(const void* bytes, size_t size, uint32_t before = 0);
