#include "performance/block_builder.h"

#include <algorithm>

#include "performance/history_block.h"

void BlockBuilder::Begin() {
    m_usedChunks = 0;
    m_encoders.clear();
    m_columns.clear();
    m_rows = 0;
    m_times[0] = {{kMonotonicColumn, 0, {0, true}}};
    m_times[1] = {{kWallColumn, 0, {0, true}}};
}

bool BlockBuilder::HasRoom(size_t columns) const {
    // A row puts at most a few bytes into each column, so it needs at most a chunk for each.
    return m_rows < kMostRows && m_usedChunks <= m_mostChunks + columns;
}

void BlockBuilder::PutByte(uint32_t encoder, uint8_t byte) {
    Stream& stream = m_encoders[encoder].stream;
    const size_t at = stream.size % sizeof(Chunk::bytes);
    if (at == 0) {
        if (m_usedChunks == m_chunks.size()) m_chunks.emplace_back();
        const auto chunk = static_cast<uint32_t>(m_usedChunks++);
        if (stream.size == 0) {
            stream.first = chunk;
        } else {
            m_chunks[stream.last].next = chunk;
        }
        stream.last = chunk;
    }
    m_chunks[stream.last].bytes[at] = byte;
    ++stream.size;
}

void BlockBuilder::BeginEncoder(Column& column) {
    column.encoder = static_cast<uint32_t>(m_encoders.size());
    m_encoders.push_back({ColumnModel(column.first.cell.value, IsReal(column.first.id)),
                          BitEncoder<Sink>({this, column.encoder}),
                          {}});
    Encoder& encoder = m_encoders.back();
    for (uint32_t row = column.from + 1; row < column.coded; ++row) {
        (void)encoder.model.Present(encoder.coder, true);
        (void)encoder.model.Value(encoder.coder, column.first.cell.value);
    }
}

void BlockBuilder::AddValue(Column& column, const RowColumn& value) {
    if (!value.cell.isPresent) return;
    if (column.coded == 0) {
        column = {value, m_rows, m_rows + 1, kNone};
        return;
    }
    if (column.encoder == kNone) {
        if (column.coded == m_rows && value.cell.value == column.first.cell.value) {
            ++column.coded;
            return;
        }
        BeginEncoder(column);
    }
    Encoder& encoder = m_encoders[column.encoder];
    for (; column.coded < m_rows; ++column.coded) {
        (void)encoder.model.Present(encoder.coder, false);
    }
    (void)encoder.model.Present(encoder.coder, true);
    (void)encoder.model.Value(encoder.coder, value.cell.value);
    ++column.coded;
}

void BlockBuilder::AddTimes(const SampleTime& time) {
    if (m_rows == 0) {
        m_head.firstMonotonic = time.monotonic;
        m_head.leastWall = m_head.mostWall = time.wall;
    }
    m_head.lastMonotonic = time.monotonic;
    m_head.leastWall = std::min(m_head.leastWall, time.wall);
    m_head.mostWall = std::max(m_head.mostWall, time.wall);
    const auto monotonic = static_cast<uint64_t>(time.monotonic);
    AddValue(m_times[0], {kMonotonicColumn, 0, {monotonic, true}});
    AddValue(m_times[1], {kWallColumn, 0, {static_cast<uint64_t>(time.wall) - monotonic, true}});
}

void BlockBuilder::Add(const SampleTime& time, std::span<const RowColumn> columns) {
    AddTimes(time);
    if (m_columns.size() < columns.size()) m_columns.resize(columns.size());
    for (size_t i = 0; i < columns.size(); ++i) AddValue(m_columns[i], columns[i]);
    ++m_rows;
}

void BlockBuilder::PutEntry(BytePutter& bytes, const Column& column, ColumnId before) const {
    DirectoryEntry entry;
    entry.id = column.first.id;
    entry.tag = column.first.tag;
    entry.from = column.from;
    entry.to = column.coded;
    entry.first = column.first.cell.value;
    if (column.encoder != kNone) {
        const Stream& stream = m_encoders[column.encoder].stream;
        entry.isConstant = false;
        entry.size = stream.size;
        entry.checksum = StreamChecksum(stream);
    }
    PutDirectoryEntry(bytes, entry, before, m_rows);
}

const std::vector<uint8_t>& BlockBuilder::Finish(BlockHead& head) {
    constexpr size_t kMostEntry = 48;
    for (Encoder& encoder : m_encoders) encoder.coder.Finish();
    m_directory.resize((m_columns.size() + m_times.size()) * kMostEntry);
    BytePutter bytes(m_directory.data(), m_directory.data() + m_directory.size());
    ColumnId before = 0;
    for (const auto columns :
         {std::span<const Column>(m_times), std::span<const Column>(m_columns)}) {
        for (const Column& column : columns) {
            if (column.coded == 0) continue;
            PutEntry(bytes, column, before);
            before = column.first.id;
        }
    }
    m_directory.resize(bytes.Size());
    size_t size = sizeof head + m_directory.size();
    for (const Encoder& encoder : m_encoders) size += encoder.stream.size;
    // A block has at least a byte for each row, so that a damaged one cannot claim millions.
    size = std::max<size_t>(size, m_rows);
    m_head.size = static_cast<uint32_t>((size + kBlockUnit - 1) / kBlockUnit * kBlockUnit);
    m_head.rows = m_rows;
    m_head.directorySize = static_cast<uint32_t>(m_directory.size());
    m_head.directoryChecksum = Crc32c(m_directory.data(), m_directory.size());
    head = m_head;
    return m_directory;
}

uint32_t BlockBuilder::StreamChecksum(const Stream& stream) const {
    uint32_t checksum = 0;
    uint32_t chunk = stream.first;
    for (uint32_t left = stream.size; left > 0; chunk = m_chunks[chunk].next) {
        const auto part = std::min<uint32_t>(left, sizeof(Chunk::bytes));
        checksum = Crc32c(m_chunks[chunk].bytes.data(), part, checksum);
        left -= part;
    }
    return checksum;
}

void BlockBuilder::CopyStream(const Stream& stream, uint8_t* to) const {
    uint32_t chunk = stream.first;
    for (uint32_t left = stream.size; left > 0; chunk = m_chunks[chunk].next) {
        const auto part = std::min<uint32_t>(left, sizeof(Chunk::bytes));
        std::memcpy(to, m_chunks[chunk].bytes.data(), part);
        to += part;
        left -= part;
    }
}

void BlockBuilder::CopyColumns(uint8_t* to) const {
    for (const auto columns :
         {std::span<const Column>(m_times), std::span<const Column>(m_columns)}) {
        for (const Column& column : columns) {
            if (column.encoder == kNone) continue;
            CopyStream(m_encoders[column.encoder].stream, to);
            to += m_encoders[column.encoder].stream.size;
        }
    }
}
