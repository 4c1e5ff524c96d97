#include "performance/history_block.h"

#include <algorithm>
#include <cerrno>

#include "base/file_io.h"
#include "performance/column_model.h"

namespace {

constexpr uint8_t kConstant = 1;
constexpr uint8_t kWhole = 2;  // from the first row to the last

// False with errno, which is 0 at the end of the file.
bool ReadBytes(int fd, uint64_t offset, size_t size, std::vector<uint8_t>& bytes) {
    bytes.resize(size);
    const ReadResult got = ReadFullyAt(fd, bytes.data(), size, static_cast<off_t>(offset));
    errno = got.error;
    return got.error == 0 && got.count == size;
}

bool ParseEntry(ByteTaker& bytes, uint32_t rows, DirectoryEntry& entry) {
    const uint8_t flags = bytes.Byte();
    entry.isConstant = (flags & kConstant) != 0;
    entry.id += static_cast<uint32_t>(UnZigZag(bytes.Number()));
    entry.tag = static_cast<uint16_t>(bytes.Fixed(2));
    const uint64_t from = (flags & kWhole) != 0 ? 0 : bytes.Number();
    const uint64_t to = (flags & kWhole) != 0 ? rows : bytes.Number();
    entry.first = UnZigZag(bytes.Number());
    entry.size = 0;
    if (!entry.isConstant) {
        entry.size = static_cast<uint32_t>(bytes.Number());
        entry.checksum = bytes.Fixed(4);
    }
    entry.from = static_cast<uint32_t>(from);
    entry.to = static_cast<uint32_t>(to);
    return !bytes.HasFailed() && from < to && to <= rows;
}

bool ParseDirectory(const std::vector<uint8_t>& bytes, const BlockHead& head,
                    std::vector<DirectoryEntry>& entries) {
    if (Crc32c(bytes.data(), bytes.size()) != head.directoryChecksum) return false;
    ByteTaker taker(bytes.data(), bytes.size());
    DirectoryEntry entry;
    uint64_t offset = sizeof head + bytes.size();
    while (!taker.AtEnd()) {
        if (!ParseEntry(taker, head.rows, entry)) return false;
        entry.offset = static_cast<uint32_t>(offset);
        offset += entry.size;
        if (offset > head.size) return false;
        entries.push_back(entry);
    }
    return !taker.HasFailed();
}

bool IsHead(const BlockHead& head, uint32_t area, uint64_t room) {
    return head.magic == kBlockMagic && head.checksum == HeadChecksum(head) && head.area == area &&
           head.size % kBlockUnit == 0 && head.size <= room && head.rows > 0 &&
           head.rows <= std::min(head.size, kMostRows) &&
           head.directorySize <= head.size - sizeof head;
}

// The next place from `at` on where a block may begin. `end` when there is none, with errno.
uint64_t NextMagic(int fd, uint64_t at, uint64_t end) {
    constexpr uint64_t kWindow = kPage;
    std::vector<uint8_t> bytes;
    for (; at < end; at += kWindow) {
        const uint64_t size = std::min(kWindow, end - at);
        if (!ReadBytes(fd, at, size, bytes)) return end;
        for (uint64_t i = 0; i + sizeof kBlockMagic <= size; i += kBlockUnit) {
            if (std::memcmp(bytes.data() + i, &kBlockMagic, sizeof kBlockMagic) == 0) return at + i;
        }
    }
    errno = 0;
    return end;
}

void DecodeColumn(const DirectoryEntry& entry, const uint8_t* bytes, uint32_t rows,
                  ColumnValues& column) {
    column.id = entry.id;
    column.tag = entry.tag;
    column.values.assign(rows, 0);
    column.isPresent.assign(rows, 0);
    column.values[entry.from] = entry.first;
    column.isPresent[entry.from] = 1;
    if (entry.isConstant) {
        std::fill(column.values.begin() + entry.from, column.values.begin() + entry.to,
                  entry.first);
        std::fill(column.isPresent.begin() + entry.from, column.isPresent.begin() + entry.to, 1);
        return;
    }
    ColumnModel model(entry.first, IsReal(entry.id));
    BitDecoder coder(bytes, bytes + entry.size);
    for (uint32_t row = entry.from + 1; row < entry.to; ++row) {
        if (!model.Present(coder, false)) continue;
        column.isPresent[row] = 1;
        column.values[row] = model.Value(coder, 0);
    }
}

void TakeTimes(BlockRows& rows, uint32_t count) {
    const ColumnValues* const monotonic = rows.Find(kMonotonicColumn);
    const ColumnValues* const offset = rows.Find(kWallColumn);
    if (monotonic == nullptr || offset == nullptr) return;
    rows.times.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        rows.times[i].monotonic = static_cast<int64_t>(monotonic->values[i]);
        rows.times[i].wall = static_cast<int64_t>(monotonic->values[i] + offset->values[i]);
    }
}

// Sorted by column; a damaged block may have one several times.
template <typename Item, typename IdOf>
void KeepFirstOfEach(std::vector<Item>& items, IdOf idOf) {
    std::stable_sort(items.begin(), items.end(),
                     [&](const Item& a, const Item& b) { return idOf(a) < idOf(b); });
    const auto last = std::unique(items.begin(), items.end(),
                                  [&](const Item& a, const Item& b) { return idOf(a) == idOf(b); });
    items.erase(last, items.end());
}

// What it is when its bytes are not right.
BlockState Wrong(int fd, const BlockRef& block) {
    BlockHead now;
    const ReadResult got = ReadFullyAt(fd, &now, sizeof now, static_cast<off_t>(block.offset));
    errno = got.error;
    if (got.error != 0) return BlockState::kUnread;
    const bool isThere = got.count == sizeof now && std::memcmp(&now, &block.head, sizeof now) == 0;
    return isThere ? BlockState::kDamaged : BlockState::kGone;
}

// After ReadBytes.
BlockState Failed(int fd, const BlockRef& block) {
    return errno != 0 ? BlockState::kUnread : Wrong(fd, block);
}

// `writing`: the sequence of the newer slot. The part of a ring that was never written is not read.
int FindBlocks(int fd, const AreaPlace& place, uint32_t area, std::vector<BlockRef>& blocks,
               uint64_t writing) {
    const uint64_t end = place.Ring() + place.RingSize();
    if (writing == 1) return 0;
    for (uint64_t at = place.Ring(); at + sizeof(BlockHead) <= end;) {
        BlockRef block;
        block.offset = at;
        const ReadResult got =
            ReadFullyAt(fd, &block.head, sizeof block.head, static_cast<off_t>(at));
        if (got.error != 0) return got.error;
        if (got.count < sizeof block.head) break;
        if (IsHead(block.head, area, end - at)) {
            blocks.push_back(block);
            at += block.head.size;
            const bool isFirstRound = blocks.front().head.sequence == 1;
            if (isFirstRound && block.head.sequence + 1 == writing) break;
        } else {
            at = NextMagic(fd, at + kBlockUnit, end);
            if (at == end && errno != 0) return errno;
        }
    }
    std::sort(blocks.begin(), blocks.end(), [](const BlockRef& a, const BlockRef& b) {
        return a.head.sequence < b.head.sequence;
    });
    const auto last = std::unique(blocks.begin(), blocks.end(), [](const auto& a, const auto& b) {
        return a.head.sequence == b.head.sequence;
    });
    blocks.erase(last, blocks.end());
    return 0;
}

// The rows of a slot as far as their sizes lead, so that the rest of it is not read. An errno
// number.
int ReadRows(int fd, const AreaPlace& place, uint64_t which, std::vector<uint8_t>& bytes) {
    constexpr uint64_t kPart = 64 << 10;
    RowHead head;
    head.size = sizeof(SlotHead) - sizeof head;
    for (uint64_t at = 0; head.size > 0 && head.size + sizeof head <= place.slot - at;) {
        at += sizeof head + head.size;
        const size_t have = bytes.size();
        if (have < std::min(at + sizeof head, place.slot)) {
            bytes.resize(std::min(at + kPart, place.slot));
            const uint64_t from = place.offset + which * place.slot + have;
            const ReadResult got =
                ReadFullyAt(fd, bytes.data() + have, bytes.size() - have, static_cast<off_t>(from));
            bytes.resize(have + got.count);
            if (got.error != 0) return got.error;
        }
        if (at + sizeof head > bytes.size()) break;
        std::memcpy(&head, bytes.data() + at, sizeof head);
    }
    return 0;
}

// Whether bytes of the block are wrong. A power cut while it was being brought to the disk leaves
// some of its pages; its rows are still in the slot. An errno number.
int FindTear(int fd, const BlockRef& block, bool& isTorn) {
    std::vector<DirectoryEntry> entries;
    std::vector<uint8_t> bytes;
    BlockState state = ReadDirectory(fd, block, entries);
    if (state == BlockState::kSound && !ReadBytes(fd, block.offset, block.head.size, bytes)) {
        state = Failed(fd, block);
    }
    const bool isWrong =
        state == BlockState::kSound &&
        std::any_of(entries.begin(), entries.end(), [&](const DirectoryEntry& entry) {
            return !entry.isConstant &&
                   Crc32c(bytes.data() + entry.offset, entry.size) != entry.checksum;
        });
    if (isWrong) state = Wrong(fd, block);
    isTorn = state == BlockState::kDamaged;
    return state == BlockState::kUnread ? errno : 0;
}

// Without rows when there is none. A second time, when the writer began the slot again while it was
// read. An errno number.
int ReadSlotRows(int fd, const AreaPlace& place, uint64_t which, uint32_t area, SlotRows& slot) {
    bool isThere = false;
    for (int attempt = 0; attempt < 2 && !isThere; ++attempt) {
        std::vector<uint8_t> bytes;
        slot = {};
        const int failed = ReadRows(fd, place, which, bytes);
        if (failed != 0) return failed;
        isThere = ParseSlot(std::move(bytes), area, slot);
    }
    if (!isThere) slot = {};
    return 0;
}

}  // namespace

void PutDirectoryEntry(BytePutter& bytes, const DirectoryEntry& entry, ColumnId before,
                       uint32_t rows) {
    const bool isWhole = entry.from == 0 && entry.to == rows;
    bytes.Byte(static_cast<uint8_t>((entry.isConstant ? kConstant : 0) | (isWhole ? kWhole : 0)));
    // The difference may have any sign.
    bytes.Number(ZigZag(static_cast<uint64_t>(int64_t{entry.id} - int64_t{before})));
    bytes.Fixed(entry.tag, 2);
    if (!isWhole) {
        bytes.Number(entry.from);
        bytes.Number(entry.to);
    }
    bytes.Number(ZigZag(entry.first));
    if (entry.isConstant) return;
    bytes.Number(entry.size);
    bytes.Fixed(entry.checksum, 4);
}

const ColumnValues* BlockRows::Find(ColumnId id) const {
    const auto found = std::lower_bound(
        columns.begin(), columns.end(), id,
        [](const ColumnValues& column, ColumnId wanted) { return column.id < wanted; });
    return found == columns.end() || found->id != id ? nullptr : &*found;
}

int ReadLog(int fd, const AreaPlace& place, uint32_t area, std::vector<BlockRef>& blocks,
            std::vector<SlotRows>& slots) {
    std::array<uint64_t, 2> sequences{};
    for (uint64_t i = 0; i < 2; ++i) {
        SlotHead head;
        const uint64_t at = place.offset + i * place.slot;
        const ReadResult got = ReadFullyAt(fd, &head, sizeof head, static_cast<off_t>(at));
        if (got.error != 0) return got.error;
        if (head.magic == kSlotMagic) sequences[i] = head.sequence;
    }
    const uint64_t newer = sequences[1] > sequences[0] ? 1 : 0;
    // The newer one before the ring: what is sealed meanwhile is then found there. The other one is
    // sealed already, unless a power cut has taken its block.
    SlotRows slot;
    SlotRows other;
    int failed = ReadSlotRows(fd, place, newer, area, slot);
    if (failed == 0) failed = FindBlocks(fd, place, area, blocks, sequences[newer]);
    bool isTorn = false;
    if (failed == 0 && !blocks.empty()) failed = FindTear(fd, blocks.back(), isTorn);
    const uint64_t sealed = blocks.empty() ? 0 : blocks.back().head.sequence - (isTorn ? 1 : 0);
    if (failed == 0 && sequences[1 - newer] > sealed) {
        failed = ReadSlotRows(fd, place, 1 - newer, area, other);
    }
    if (failed != 0) return failed;
    for (SlotRows* const each : {&other, &slot}) {
        if (each->rows == 0 || each->head.sequence <= sealed) continue;
        if (isTorn && each->head.sequence == sealed + 1) {
            // What still has most of the rows is taken.
            if (each->rows < blocks.back().head.rows / 2) continue;
            blocks.pop_back();
            isTorn = false;
        }
        slots.push_back(std::move(*each));
    }
    std::sort(slots.begin(), slots.end(), [](const SlotRows& a, const SlotRows& b) {
        return a.head.sequence < b.head.sequence;
    });
    return 0;
}

BlockState ReadDirectory(int fd, const BlockRef& block, std::vector<DirectoryEntry>& entries) {
    std::vector<uint8_t> bytes;
    entries.clear();
    if (!ReadBytes(fd, block.offset + sizeof block.head, block.head.directorySize, bytes)) {
        return Failed(fd, block);
    }
    if (ParseDirectory(bytes, block.head, entries)) return BlockState::kSound;
    entries.clear();
    return Wrong(fd, block);
}

BlockState ReadBlock(int fd, const BlockRef& block, const ColumnFilter& isWanted, BlockRows& rows) {
    std::vector<DirectoryEntry> entries;
    BlockState state = ReadDirectory(fd, block, entries);
    if (state != BlockState::kSound) return state;
    std::erase_if(entries, [&](const DirectoryEntry& entry) {
        return entry.id != kMonotonicColumn && entry.id != kWallColumn &&
               !isWanted(entry.id, entry.tag);
    });
    KeepFirstOfEach(entries, [](const DirectoryEntry& entry) { return entry.id; });
    // Few columns are read one by one, many with all that lies between them.
    constexpr size_t kFew = 16;
    std::vector<uint8_t> bytes;
    const bool isWhole = entries.size() > kFew;
    if (isWhole && !ReadBytes(fd, block.offset, block.head.size, bytes)) return Failed(fd, block);
    rows.boot = block.head.boot;
    rows.columns.reserve(entries.size());
    for (const DirectoryEntry& entry : entries) {
        if (!isWhole && !ReadBytes(fd, block.offset + entry.offset, entry.size, bytes)) {
            return Failed(fd, block);
        }
        const uint8_t* const column = bytes.data() + (isWhole ? entry.offset : 0);
        if (!entry.isConstant && Crc32c(column, entry.size) != entry.checksum) {
            state = Wrong(fd, block);
            continue;
        }
        DecodeColumn(entry, column, block.head.rows, rows.columns.emplace_back());
    }
    TakeTimes(rows, block.head.rows);
    return state;
}

void ReadSlot(const SlotRows& slot, const ColumnFilter& isWanted, BlockRows& rows) {
    rows.boot = slot.head.boot;
    std::vector<size_t> wanted;  // numbers of the columns in the slot
    for (size_t i = 0; i < slot.columns.size(); ++i) {
        if (isWanted(slot.columns[i].id, slot.columns[i].tag)) wanted.push_back(i);
    }
    KeepFirstOfEach(wanted, [&](size_t i) { return slot.columns[i].id; });
    for (const size_t i : wanted) {
        const RowColumn& column = slot.columns[i];
        rows.columns.push_back({column.id, column.tag, std::vector<uint64_t>(slot.rows),
                                std::vector<uint8_t>(slot.rows)});
    }
    rows.times.reserve(slot.rows);
    slot.ForEach([&](const SampleTime& time, const std::vector<RowColumn>& now) {
        const size_t row = rows.times.size();
        rows.times.push_back(time);
        for (size_t i = 0; i < wanted.size(); ++i) {
            if (wanted[i] >= now.size()) continue;
            const Cell& cell = now[wanted[i]].cell;
            rows.columns[i].values[row] = cell.value;
            rows.columns[i].isPresent[row] = cell.isPresent ? 1 : 0;
        }
    });
}

int ForEachBlock(int fd, const AreaPlace& place, uint32_t area, HistoryKey from,
                 const ColumnFilter& isWanted, const std::function<void(const BlockRows&)>& take) {
    std::vector<SlotRows> slots;
    std::vector<BlockRef> blocks;
    const int failed = ReadLog(fd, place, area, blocks, slots);
    if (failed != 0) return failed;
    for (const BlockRef& block : blocks) {
        if (block.Last() <= from) continue;
        BlockRows rows;
        const BlockState state = ReadBlock(fd, block, isWanted, rows);
        if (state == BlockState::kUnread) return errno;
        if (state != BlockState::kGone) take(rows);
    }
    for (const SlotRows& slot : slots) {
        BlockRows rows;
        ReadSlot(slot, isWanted, rows);
        take(rows);
    }
    return 0;
}

int FindOrigins(int fd, const AreaPlace& place, uint32_t area,
                std::map<uint32_t, BlockOrigin>& origins) {
    std::vector<SlotRows> slots;
    std::vector<BlockRef> blocks;
    const int failed = ReadLog(fd, place, area, blocks, slots);
    if (failed != 0) return failed;
    const auto take = [&](const auto& head) {
        origins[head.boot] = {head.boot, FixedText(head.bootId), head.period};
    };
    for (const BlockRef& block : blocks) take(block.head);
    for (const SlotRows& slot : slots) take(slot.head);
    return 0;
}
