// Sealed blocks: their directory, finding them in a ring, and reading their columns. All of it
// takes whatever bytes there are.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "performance/history_format.h"
#include "performance/history_row.h"

struct DirectoryEntry {
    ColumnId id = 0;
    uint16_t tag = 0;
    bool isConstant = true;
    uint32_t from = 0;  // the rows of the column; it may have gaps
    uint32_t to = 0;
    uint64_t first = 0;  // its first value
    uint32_t size = 0;   // of its bytes, none of a constant
    uint32_t checksum = 0;
    uint32_t offset = 0;  // from the block's start; found by parsing
};

void PutDirectoryEntry(BytePutter& bytes, const DirectoryEntry& entry, ColumnId before,
                       uint32_t rows);

// A block in a ring.
struct BlockRef {
    BlockHead head;
    uint64_t offset = 0;  // in the file
    [[nodiscard]] HistoryKey First() const { return {head.boot, head.firstMonotonic}; }
    [[nodiscard]] HistoryKey Last() const { return {head.boot, head.lastMonotonic}; }
};

// Rows of a block or slot, only the columns that were asked for.
struct ColumnValues {
    ColumnId id = 0;
    uint16_t tag = 0;
    std::vector<uint64_t> values;
    std::vector<uint8_t> isPresent;
};
struct BlockRows {
    uint32_t boot = 0;
    std::vector<SampleTime> times;
    std::vector<ColumnValues> columns;  // sorted by id
    [[nodiscard]] const ColumnValues* Find(ColumnId id) const;
};
using ColumnFilter = std::function<bool(ColumnId id, uint16_t tag)>;

enum class BlockState {
    kSound,
    kGone,     // the writer has overwritten it meanwhile
    kDamaged,  // what can be read of it has been
    kUnread,   // the file cannot be read, errno says why
};

// The sound blocks of a log, in the order of their sequence, and after them the rows of its slots
// that are in no block. An errno number.
int ReadLog(int fd, const AreaPlace& place, uint32_t area, std::vector<BlockRef>& blocks,
            std::vector<SlotRows>& slots);
BlockState ReadDirectory(int fd, const BlockRef& block, std::vector<DirectoryEntry>& entries);
BlockState ReadBlock(int fd, const BlockRef& block, const ColumnFilter& isWanted, BlockRows& rows);
void ReadSlot(const SlotRows& slot, const ColumnFilter& isWanted, BlockRows& rows);

// Calls take for the rows of each sealed block, then of each slot, of a log in the order of
// recording, from the block on that holds rows after `from`. What is damaged is left out. An errno
// number.
int ForEachBlock(int fd, const AreaPlace& place, uint32_t area, HistoryKey from,
                 const ColumnFilter& isWanted, const std::function<void(const BlockRows&)>& take);

// What the rows of a block have in common.
struct BlockOrigin {
    uint32_t boot = 0;
    std::string bootId;
    int64_t period = 0;
    bool operator==(const BlockOrigin&) const = default;
};
// Adds the newest origin of each boot that the log has. An errno number.
int FindOrigins(int fd, const AreaPlace& place, uint32_t area,
                std::map<uint32_t, BlockOrigin>& origins);
