#include "performance/history_row.h"

#include <algorithm>

namespace {

// In place of a difference: the value went away, or came back.
constexpr uint64_t kPresenceChanged = 0;

bool IsSame(const Cell& before, const Cell& now) {
    return before.isPresent == now.isPresent && (!now.isPresent || before.value == now.value);
}

void PutCell(BytePutter& bytes, const Cell& before, const Cell& now) {
    if (before.isPresent != now.isPresent) bytes.Number(kPresenceChanged);
    if (now.isPresent) bytes.Number(ZigZag(now.value - before.value));
}

void TakeCell(ByteTaker& bytes, Cell& cell) {
    uint64_t difference = bytes.Number();
    if (difference == kPresenceChanged) {
        cell.isPresent = !cell.isPresent;
        if (!cell.isPresent) return;
        difference = bytes.Number();
    }
    cell.value += UnZigZag(difference);
}

}  // namespace

size_t EncodeRow(std::span<uint8_t> room, const SampleTime& before, const SampleTime& time,
                 std::span<const RowColumn> columns, size_t known, std::span<const Cell> cells) {
    BytePutter bytes(room.data(), room.data() + room.size());
    const auto offset = [](const SampleTime& moment) {
        return static_cast<uint64_t>(moment.wall) - static_cast<uint64_t>(moment.monotonic);
    };
    bytes.Number(
        ZigZag(static_cast<uint64_t>(time.monotonic) - static_cast<uint64_t>(before.monotonic)));
    bytes.Number(ZigZag(offset(time) - offset(before)));
    bytes.Number(columns.size() - known);
    for (const RowColumn& column : columns.subspan(known)) {
        bytes.Number(column.id);
        bytes.Fixed(column.tag, 2);
    }
    uint64_t same = 0;
    for (size_t i = 0; i < columns.size(); ++i) {
        if (IsSame(columns[i].cell, cells[i])) {
            ++same;
            continue;
        }
        bytes.Number(same);
        same = 0;
        PutCell(bytes, columns[i].cell, cells[i]);
    }
    return bytes.HasFailed() ? 0 : bytes.Size();
}

bool DecodeRow(std::span<const uint8_t> row, SampleTime& time, std::vector<RowColumn>& columns) {
    ByteTaker bytes(row.data(), row.size());
    const uint64_t offset =
        static_cast<uint64_t>(time.wall) - static_cast<uint64_t>(time.monotonic);
    const uint64_t monotonic = static_cast<uint64_t>(time.monotonic) + UnZigZag(bytes.Number());
    time.monotonic = static_cast<int64_t>(monotonic);
    time.wall = static_cast<int64_t>(monotonic + offset + UnZigZag(bytes.Number()));
    uint64_t added = bytes.Number();
    for (; added > 0 && !bytes.HasFailed(); --added) {
        const auto id = static_cast<ColumnId>(bytes.Number());
        const auto tag = static_cast<uint16_t>(bytes.Fixed(2));
        columns.push_back({id, tag, {}});
    }
    size_t at = 0;
    while (!bytes.AtEnd()) {
        const uint64_t same = bytes.Number();
        if (same >= columns.size() - at) return false;
        at += same;
        TakeCell(bytes, columns[at++].cell);
    }
    return !bytes.HasFailed();
}

bool ParseSlot(std::vector<uint8_t> bytes, uint32_t area, SlotRows& slot) {
    if (bytes.size() < sizeof(SlotHead)) return false;
    std::memcpy(&slot.head, bytes.data(), sizeof slot.head);
    if (slot.head.magic != kSlotMagic || slot.head.area != area ||
        slot.head.checksum != HeadChecksum(slot.head)) {
        return false;
    }
    size_t at = sizeof(SlotHead);
    SampleTime time;
    while (slot.rows < kMostRows && bytes.size() - at > sizeof(RowHead)) {
        RowHead head;
        std::memcpy(&head, bytes.data() + at, sizeof head);
        const size_t from = at + sizeof head;
        if (head.size == 0 || head.size > bytes.size() - from ||
            head.checksum != RowChecksum(slot.head.sequence, at, bytes.data() + from, head.size) ||
            !DecodeRow({bytes.data() + from, head.size}, time, slot.columns)) {
            break;
        }
        at = from + head.size;
        if (slot.rows++ == 0) {
            slot.first = time;
            slot.leastWall = slot.mostWall = time.wall;
        }
        slot.last = time;
        slot.leastWall = std::min(slot.leastWall, time.wall);
        slot.mostWall = std::max(slot.mostWall, time.wall);
    }
    bytes.resize(at);
    slot.bytes = std::move(bytes);
    return slot.rows > 0;
}
