// Writes one log of the history: rows into a slot, where each is safe at once, and sealed blocks
// into the ring, in which the newest overwrite the oldest. The rows of one block go into one slot,
// those of the next into the other, so that the rows of a block stay until long after it is sealed.
// One thread uses an object.
#pragma once

#include <deque>
#include <span>
#include <string>
#include <vector>

#include "performance/block_builder.h"
#include "performance/history_block.h"
#include "performance/history_definitions.h"

class BlockLog {
  public:
    // `area`: the log's bytes, mapped. Not the owner of anything.
    BlockLog(uint32_t number, std::span<uint8_t> area, uint64_t slotSize,
             HistoryDefinitions& definitions);

    // Takes what is in the file, and goes on with the newest block. An errno number.
    int Resume(int fd, const AreaPlace& place);
    // What the next rows have in common; a block that has another origin is sealed.
    void SetOrigin(const BlockOrigin& origin);

    // Columns are numbered from 0 in each block, so they are added again when this number changes.
    [[nodiscard]] uint64_t Block() const { return m_sequence; }
    [[nodiscard]] size_t Columns() const { return m_columns.size(); }
    // What the column has in the row before in this block, and that row's times.
    [[nodiscard]] const Cell& Before(uint32_t column) const { return m_columns[column].cell; }
    [[nodiscard]] const SampleTime& TimeBefore() const { return m_time; }
    // The columns of one series, or those of the rows themselves; the number of the first one.
    // Those that the block has already are not added again.
    uint32_t AddColumns(std::span<const ColumnId> ids, uint16_t tag);
    // A cell for each column. False when another block was begun: add the columns and call it
    // again.
    bool Append(const SampleTime& time, std::span<const Cell> cells);
    // Rows that were left out because they do not even fit into an empty slot.
    [[nodiscard]] uint64_t Lost() const { return m_lost; }
    void Seal();
    // A sealed block of another file; `entries` with places and tags of this one's definitions.
    void Adopt(const BlockHead& head, std::span<const DirectoryEntry> entries,
               std::span<const uint8_t> columns);
    // The rows of another file's slot, sealed; its columns refer to this one's definitions.
    void Adopt(const SlotRows& slot);

  private:
    struct Sealed {
        uint64_t sequence;
        uint64_t offset;  // in the ring
        uint64_t size;
    };

    void PutColumn(ColumnId id, uint16_t tag);
    void BeginSlot();
    void BeginBlock();
    void Replay(const SlotRows& slot);
    // A place of that size in the ring; what was there is gone. Null when it is larger than the
    // ring.
    uint8_t* Make(uint64_t size);
    void Publish(BlockHead& head, uint8_t* to);

    uint32_t m_number;
    std::span<uint8_t> m_area;
    uint64_t m_slotSize;
    HistoryDefinitions& m_definitions;
    BlockOrigin m_origin;
    BlockBuilder m_builder;
    std::deque<Sealed> m_blocks;
    uint64_t m_sequence = 1;  // of the block that is being written
    uint64_t m_end = 0;       // of the rows in its slot
    uint64_t m_ringEnd = 0;   // of the newest block
    uint64_t m_lost = 0;
    SampleTime m_time;
    size_t m_known = 0;  // columns that the rows so far have
    std::vector<RowColumn> m_columns;
    std::vector<uint32_t> m_firstColumn;  // by place of the definition, and 1 more; 0: none
};
