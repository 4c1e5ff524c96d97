// What a history consists of, for the writer and the reader.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr char kMagic[8] = {'k', 'e', 'm', 'd', 'p', 'l', 'n', '0'};
inline constexpr size_t kCommitted = 8;  // the end of what is complete
inline constexpr size_t kFirstRecord = 64;
enum RecordKind : uint32_t { kRun = 1, kSeries, kSample, kMark };
