// The areas with marks and with the notes of processes: records of any length, the newest over the
// oldest. They are found by their magic and checksum. One thread uses an object.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "performance/history_format.h"
#include "performance/sample_time.h"

struct StoredMark {
    uint64_t sequence = 0;
    uint32_t boot = 0;
    Mark mark;
    size_t offset = 0;  // in the area
    size_t size = 0;
};

// All sound records of an area, in the order of writing.
std::vector<StoredMark> ParseMarks(std::span<const uint8_t> area);

class HistoryMarks {
  public:
    explicit HistoryMarks(std::span<uint8_t> area);
    // A text of more than 64 KiB, or a quarter of the area, is cut.
    void Append(uint32_t boot, const Mark& mark);
    [[nodiscard]] uint32_t NewestBoot() const { return m_boot; }

  private:
    std::span<uint8_t> m_area;
    uint64_t m_sequence = 1;
    size_t m_end = 0;
    uint32_t m_boot = 0;
};
