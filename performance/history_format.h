// The bytes of a history file, for the writer and the reader: see docs/performance-format.md. All
// numbers are little-endian, as the machine has them.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "performance/checksum.h"
#include "performance/series.h"

inline constexpr std::string_view kHistoryMagic = "KEMDPERF";
inline constexpr uint32_t kHistoryVersion = 2;
inline constexpr size_t kPage = 4096;
inline constexpr uint64_t kLeastHistory = uint64_t{1} << 20;

enum Area : uint32_t { kSamples, kMinutes, kHours, kDefinitions, kMarks, kProcessNotes, kAreas };
inline constexpr uint32_t kLogs = 3;  // areas that consist of two slots and a ring of blocks
inline constexpr int64_t kMinuteNs = 60'000'000'000;
inline constexpr int64_t kHourNs = 60 * kMinuteNs;

struct AreaPlace {
    uint64_t offset = 0;
    uint64_t size = 0;
    uint64_t slot = 0;  // of a log: size of each of its two slots
    [[nodiscard]] uint64_t Ring() const { return offset + 2 * slot; }
    [[nodiscard]] uint64_t RingSize() const { return size - 2 * slot; }
};

struct FileHead {
    std::array<char, 8> magic{};
    uint32_t version = 0;
    uint32_t checksum = 0;  // of this head with 0 here
    uint64_t size = 0;
    std::array<AreaPlace, kAreas> areas{};
    std::array<char, 256> host{};  // ends with NUL
};

// A slot holds the rows of the block that is being written.
struct SlotHead {
    uint32_t magic = 0;
    uint32_t checksum = 0;  // of what comes after it in this head
    uint64_t sequence = 0;
    int64_t period = 0;
    uint32_t area = 0;
    uint32_t boot = 0;  // counts the boots in this file
    std::array<char, 40> bootId{};
};

// A block in the ring. Directory and columns come after it.
struct BlockHead {
    uint32_t magic = 0;
    uint32_t checksum = 0;  // of what comes after it in this head
    uint64_t sequence = 0;
    int64_t period = 0;
    uint32_t area = 0;
    uint32_t boot = 0;
    std::array<char, 40> bootId{};
    uint32_t size = 0;  // of all, a multiple of kBlockUnit
    uint32_t directorySize = 0;
    uint32_t directoryChecksum = 0;
    uint32_t rows = 0;
    int64_t firstMonotonic = 0;
    int64_t lastMonotonic = 0;
    int64_t leastWall = 0;
    int64_t mostWall = 0;
};

// Before each row in a slot.
struct RowHead {
    uint32_t size = 0;
    uint32_t checksum = 0;  // of the row, seeded with the slot's sequence and the row's offset
};

inline constexpr uint32_t kSlotMagic = 0x544c534b;   // "KSLT"
inline constexpr uint32_t kBlockMagic = 0x4b4c424b;  // "KBLK"
inline constexpr uint32_t kBlockUnit = 256;
inline constexpr uint32_t kMostRows = 4096;
static_assert(sizeof(FileHead) == 24 + kAreas * 24 + 256 && sizeof(FileHead) <= kPage);
static_assert(sizeof(SlotHead) == 72 && sizeof(BlockHead) == 120 && sizeof(RowHead) == 8);

// A column: 28 bits for the place of the series' definition, one for doubles, three for the part.
using ColumnId = uint32_t;
enum StepPart : uint32_t { kLast, kLeast, kMean, kMost };
inline constexpr uint32_t kNoSeries = (1U << 28) - 1;
constexpr ColumnId MakeColumn(uint32_t series, bool isReal, uint32_t part) {
    return series << 4 | (isReal ? 8U : 0U) | part;
}
constexpr uint32_t SeriesOf(ColumnId id) {
    return id >> 4;
}
constexpr bool IsReal(ColumnId id) {
    return (id & 8) != 0;
}
constexpr uint32_t PartOf(ColumnId id) {
    return id & 7;
}
// Of every row, its times; of a minute or hour also its number of samples, the nanoseconds from its
// first to its last sample, and the milliseconds that its rates are about.
inline constexpr ColumnId kMonotonicColumn = MakeColumn(kNoSeries, false, 0);
inline constexpr ColumnId kWallColumn = MakeColumn(kNoSeries, false, 1);  // less the monotonic time
inline constexpr ColumnId kCountColumn = MakeColumn(kNoSeries, false, 2);
inline constexpr ColumnId kLengthColumn = MakeColumn(kNoSeries, false, 3);
inline constexpr ColumnId kRateColumn = MakeColumn(kNoSeries, false, 4);

// A moment in the order of recording.
struct HistoryKey {
    uint32_t boot = 0;
    int64_t monotonic = 0;
    auto operator<=>(const HistoryKey&) const = default;
};

template <typename Head>
uint32_t HeadChecksum(const Head& head) {
    constexpr size_t kFrom = 2 * sizeof(uint32_t);
    return Crc32c(reinterpret_cast<const char*>(&head) + kFrom, sizeof head - kFrom);
}
inline uint32_t RowChecksum(uint64_t sequence, uint64_t offset, const void* row, size_t size) {
    return Crc32c(row, size, static_cast<uint32_t>(sequence * 0x9e3779b1U ^ offset));
}

template <size_t kSize>
std::string FixedText(const std::array<char, kSize>& text) {
    return {text.data(), strnlen(text.data(), kSize)};
}
template <size_t kSize>
void SetFixedText(std::array<char, kSize>& text, const std::string& value) {
    text.fill(0);
    value.copy(text.data(), kSize - 1);
}

// Where everything is in a file of this size.
FileHead MakeFileHead(uint64_t size, const std::string& host);
// Empty, or what is wrong with it.
std::string CheckFileHead(const FileHead& head);

// Numbers of 7 bits a byte, the lowest first.
inline uint64_t ZigZag(uint64_t number) {
    return number << 1 ^ (0 - (number >> 63));
}
inline uint64_t UnZigZag(uint64_t number) {
    return number >> 1 ^ (0 - (number & 1));
}
// Writes as long as there is room; check HasFailed at the end.
class BytePutter {
  public:
    BytePutter(uint8_t* begin, uint8_t* end) : m_begin(begin), m_next(begin), m_end(end) {}
    void Byte(uint8_t byte) {
        if (m_next < m_end) {
            *m_next++ = byte;
        } else {
            m_hasFailed = true;
        }
    }
    void Number(uint64_t number) {
        for (; number > 0x7f; number >>= 7) Byte(static_cast<uint8_t>(number | 0x80));
        Byte(static_cast<uint8_t>(number));
    }
    void Fixed(uint32_t number, int bytes) {
        for (int i = 0; i < bytes; ++i) Byte(static_cast<uint8_t>(number >> 8 * i));
    }
    [[nodiscard]] bool HasFailed() const { return m_hasFailed; }
    [[nodiscard]] size_t Size() const { return static_cast<size_t>(m_next - m_begin); }

  private:
    uint8_t* m_begin;
    uint8_t* m_next;
    uint8_t* m_end;
    bool m_hasFailed = false;
};
class ByteTaker {
  public:
    ByteTaker(const uint8_t* begin, size_t size) : m_next(begin), m_end(begin + size) {}
    uint8_t Byte() {
        if (m_next < m_end) return *m_next++;
        m_hasFailed = true;
        return 0;
    }
    uint64_t Number() {
        if (m_next < m_end && *m_next < 0x80) return *m_next++;
        uint64_t number = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const uint8_t byte = Byte();
            number |= uint64_t{byte & 0x7fU} << shift;
            if (byte < 0x80) return number;
        }
        m_hasFailed = true;
        return 0;
    }
    uint32_t Fixed(int bytes) {
        uint32_t number = 0;
        for (int i = 0; i < bytes; ++i) number |= uint32_t{Byte()} << 8 * i;
        return number;
    }
    [[nodiscard]] bool AtEnd() const { return m_next == m_end || m_hasFailed; }
    [[nodiscard]] bool HasFailed() const { return m_hasFailed; }
    [[nodiscard]] size_t Left() const { return static_cast<size_t>(m_end - m_next); }

  private:
    const uint8_t* m_next;
    const uint8_t* m_end;
    bool m_hasFailed = false;
};
