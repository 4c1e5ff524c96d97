// A row of a block that is being written: one moment's values as differences from the row before,
// so that it takes a page of the file every few seconds. See docs/performance-format.md.
#pragma once

#include <span>
#include <vector>

#include "performance/history_format.h"
#include "performance/sample_time.h"

struct Cell {
    uint64_t value = 0;
    bool isPresent = false;
};

// A column of the block and its value in the newest row; one that is absent keeps the value before.
struct RowColumn {
    ColumnId id = 0;
    uint16_t tag = 0;  // of the definition, see history_definitions.h
    Cell cell;
};

// `cells` has one for each column; those from `known` on are new with this row. The bytes that it
// took, 0 when there is no room.
size_t EncodeRow(std::span<uint8_t> room, const SampleTime& before, const SampleTime& time,
                 std::span<const RowColumn> columns, size_t known, std::span<const Cell> cells);
// Brings time and columns to the state of the row. False for bytes that are no row.
bool DecodeRow(std::span<const uint8_t> row, SampleTime& time, std::vector<RowColumn>& columns);

// A slot as the reader and the next run find it: what is sound of its rows.
struct SlotRows {
    SlotHead head;
    std::vector<uint8_t> bytes;  // of the slot up to the end of the last sound row
    uint32_t rows = 0;
    SampleTime first;
    SampleTime last;
    int64_t leastWall = 0;
    int64_t mostWall = 0;
    std::vector<RowColumn> columns;  // after the last row

    // Calls take(time, columns) for each row.
    template <typename Take>
    void ForEach(Take take) const;
};

// False when there is no slot of this area in the bytes.
bool ParseSlot(std::vector<uint8_t> bytes, uint32_t area, SlotRows& slot);

template <typename Take>
void SlotRows::ForEach(Take take) const {
    SampleTime time;
    std::vector<RowColumn> now;
    size_t at = sizeof(SlotHead);
    for (uint32_t row = 0; row < rows; ++row) {
        RowHead rowHead;
        std::memcpy(&rowHead, bytes.data() + at, sizeof rowHead);
        at += sizeof rowHead;
        (void)DecodeRow({bytes.data() + at, rowHead.size}, time, now);
        at += rowHead.size;
        take(time, now);
    }
}
