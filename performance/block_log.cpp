#include "performance/block_log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace {

// More would compress a little better, but a reader of the last minutes has to decode all of them.
constexpr uint32_t kMostBlockRows = 512;

}  // namespace

BlockLog::BlockLog(uint32_t number, std::span<uint8_t> area, uint64_t slotSize,
                   HistoryDefinitions& definitions)
    : m_number(number),
      m_area(area),
      m_slotSize(slotSize),
      m_definitions(definitions),
      m_builder(slotSize) {}

void BlockLog::BeginBlock() {
    m_builder.Begin();
    m_columns.clear();
    m_known = 0;
    m_end = 0;
    m_time = {};
    std::fill(m_firstColumn.begin(), m_firstColumn.end(), 0);
    m_definitions.SetBlocks(m_number, m_blocks.empty() ? m_sequence : m_blocks.front().sequence,
                            m_sequence);
}

void BlockLog::BeginSlot() {
    SlotHead head;
    head.sequence = m_sequence;
    head.period = m_origin.period;
    head.area = m_number;
    head.boot = m_origin.boot;
    SetFixedText(head.bootId, m_origin.bootId);
    head.magic = kSlotMagic;
    head.checksum = HeadChecksum(head);
    std::memcpy(m_area.data() + (m_sequence & 1) * m_slotSize, &head, sizeof head);
    m_end = sizeof head;
}

void BlockLog::PutColumn(ColumnId id, uint16_t tag) {
    const uint32_t place = SeriesOf(id);
    m_definitions.Use(place, tag, m_number, m_sequence);
    m_columns.push_back({id, tag, {}});
    if (place == kNoSeries) return;
    if (m_firstColumn.size() <= place) m_firstColumn.resize(place + 1);
    uint32_t& first = m_firstColumn[place];
    if (first == 0 || m_columns[first - 1].tag != tag) {
        first = static_cast<uint32_t>(m_columns.size());
    }
}

uint32_t BlockLog::AddColumns(std::span<const ColumnId> ids, uint16_t tag) {
    const uint32_t place = SeriesOf(ids.front());
    if (place == kNoSeries && !m_columns.empty()) return 0;
    const uint32_t first = place < m_firstColumn.size() ? m_firstColumn[place] : 0;
    if (first != 0 && m_columns[first - 1].tag == tag) return first - 1;
    const auto column = static_cast<uint32_t>(m_columns.size());
    for (const ColumnId id : ids) PutColumn(id, tag);
    return column;
}

bool BlockLog::Append(const SampleTime& time, std::span<const Cell> cells) {
    const bool isFull = m_builder.Rows() >= kMostBlockRows || !m_builder.HasRoom(m_columns.size());
    if (isFull) {
        Seal();
        return false;
    }
    if (m_end == 0) BeginSlot();
    uint8_t* const slot = m_area.data() + (m_sequence & 1) * m_slotSize;
    uint8_t* const row = slot + m_end + sizeof(RowHead);
    const auto room = static_cast<size_t>(std::max<int64_t>(0, slot + m_slotSize - row));
    const size_t size = EncodeRow({row, room}, m_time, time, m_columns, m_known, cells);
    if (size == 0) {
        // What does not fit into an empty slot fits nowhere: the file is too small for its series.
        if (m_builder.Rows() == 0) {
            ++m_lost;
            return true;
        }
        Seal();
        return false;
    }
    RowHead head;
    head.size = static_cast<uint32_t>(size);
    head.checksum = RowChecksum(m_sequence, m_end, row, size);
    // The row counts once its checksum is there.
    std::atomic_signal_fence(std::memory_order_release);  // enough on x86-64
    std::memcpy(row - sizeof head, &head, sizeof head);
    m_end += sizeof head + size;
    m_time = time;
    m_known = m_columns.size();
    for (size_t i = 0; i < m_known; ++i) {
        Cell& cell = m_columns[i].cell;
        cell.isPresent = cells[i].isPresent;
        if (cell.isPresent) cell.value = cells[i].value;
    }
    m_builder.Add(time, m_columns);
    return true;
}

uint8_t* BlockLog::Make(uint64_t size) {
    const uint64_t ringSize = m_area.size() - 2 * m_slotSize;
    if (size > ringSize) return nullptr;
    uint64_t at = m_ringEnd + size <= ringSize ? m_ringEnd : 0;
    uint8_t* const ring = m_area.data() + 2 * m_slotSize;
    const auto isInWay = [&](const Sealed& block) {
        return block.offset < at + size && at < block.offset + block.size;
    };
    for (const Sealed& block : m_blocks) {
        if (isInWay(block)) std::memset(ring + block.offset, 0, sizeof(BlockHead));
    }
    std::erase_if(m_blocks, isInWay);
    m_ringEnd = at + size;
    return ring + at;
}

// The head comes last: until then nothing is there.
void BlockLog::Publish(BlockHead& head, uint8_t* to) {
    head.magic = kBlockMagic;
    head.area = m_number;
    head.sequence = m_sequence;
    head.checksum = HeadChecksum(head);
    std::atomic_signal_fence(std::memory_order_release);  // enough on x86-64
    std::memcpy(to, &head, sizeof head);
    const auto offset = static_cast<uint64_t>(to - m_area.data()) - 2 * m_slotSize;
    m_blocks.push_back({m_sequence, offset, head.size});
}

void BlockLog::Seal() {
    if (m_builder.Rows() > 0) {
        BlockHead head;
        const std::vector<uint8_t>& directory = m_builder.Finish(head);
        uint8_t* const to = Make(head.size);
        if (to != nullptr) {
            std::memcpy(to + sizeof head, directory.data(), directory.size());
            m_builder.CopyColumns(to + sizeof head + directory.size());
            head.boot = m_origin.boot;
            head.period = m_origin.period;
            SetFixedText(head.bootId, m_origin.bootId);
            Publish(head, to);
        }
        ++m_sequence;
    }
    BeginBlock();
}

void BlockLog::Adopt(const BlockHead& from, std::span<const DirectoryEntry> entries,
                     std::span<const uint8_t> columns) {
    std::vector<uint8_t> directory(entries.size() * 48);
    BytePutter bytes(directory.data(), directory.data() + directory.size());
    ColumnId before = 0;
    for (const DirectoryEntry& entry : entries) {
        PutDirectoryEntry(bytes, entry, before, from.rows);
        before = entry.id;
        m_definitions.Use(SeriesOf(entry.id), entry.tag, m_number, m_sequence);
    }
    directory.resize(bytes.Size());
    BlockHead head = from;
    head.directorySize = static_cast<uint32_t>(directory.size());
    head.directoryChecksum = Crc32c(directory.data(), directory.size());
    const size_t size =
        std::max<size_t>(sizeof head + directory.size() + columns.size(), head.rows);
    head.size = static_cast<uint32_t>((size + kBlockUnit - 1) / kBlockUnit * kBlockUnit);
    uint8_t* const to = Make(head.size);
    if (to == nullptr) return;
    std::memcpy(to + sizeof head, directory.data(), directory.size());
    std::memcpy(to + sizeof head + directory.size(), columns.data(), columns.size());
    Publish(head, to);
    ++m_sequence;
    BeginBlock();
}

// Columns are those of the slot's last state, whatever its rows call them.
void BlockLog::Replay(const SlotRows& slot) {
    m_origin = {slot.head.boot, FixedText(slot.head.bootId), slot.head.period};
    BeginBlock();
    for (const RowColumn& column : slot.columns) PutColumn(column.id, column.tag);
    slot.ForEach([&](const SampleTime& time, const std::vector<RowColumn>& columns) {
        for (size_t i = 0; i < columns.size(); ++i) m_columns[i].cell = columns[i].cell;
        m_time = time;
        m_builder.Add(time, {m_columns.data(), columns.size()});
    });
    m_known = m_columns.size();
    m_end = slot.bytes.size();
}

void BlockLog::Adopt(const SlotRows& slot) {
    Replay(slot);
    Seal();
}

int BlockLog::Resume(int fd, const AreaPlace& place) {
    std::vector<BlockRef> blocks;
    std::vector<SlotRows> slots;
    const int failed = ReadLog(fd, place, m_number, blocks, slots);
    if (failed != 0) return failed;
    for (const BlockRef& block : blocks) {
        m_blocks.push_back({block.head.sequence, block.offset - place.Ring(), block.head.size});
        m_ringEnd = m_blocks.back().offset + block.head.size;
        m_sequence = block.head.sequence + 1;
        std::vector<DirectoryEntry> entries;
        if (ReadDirectory(fd, block, entries) == BlockState::kUnread) return errno;
        for (const DirectoryEntry& entry : entries) {
            m_definitions.Use(SeriesOf(entry.id), entry.tag, m_number, block.head.sequence);
        }
    }
    BeginBlock();
    for (const SlotRows& slot : slots) {
        if (m_builder.Rows() > 0) Seal();
        m_sequence = slot.head.sequence;
        Replay(slot);
    }
    return 0;
}

void BlockLog::SetOrigin(const BlockOrigin& origin) {
    if (m_origin == origin) return;
    if (m_builder.Rows() > 0) Seal();
    m_origin = origin;
}
