// Compresses the rows of one block as they come, column by column, so that sealing it only puts the
// columns together. A column that has not changed costs nothing but a comparison. One thread uses
// an object; it allocates when columns are added or begin to change for the first time.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "performance/column_model.h"
#include "performance/history_row.h"

class BlockBuilder {
  public:
    explicit BlockBuilder(size_t mostBytes) : m_mostChunks(mostBytes / sizeof(Chunk)) {}

    void Begin();
    // Whether a further row of so many columns finds room.
    [[nodiscard]] bool HasRoom(size_t columns) const;
    void Add(const SampleTime& time, std::span<const RowColumn> columns);
    [[nodiscard]] uint32_t Rows() const { return m_rows; }
    // The block's directory; sizes, rows and times of the head are set.
    const std::vector<uint8_t>& Finish(BlockHead& head);
    // The columns after Finish: as many bytes as the head's size leaves after head and directory.
    void CopyColumns(uint8_t* to) const;

  private:
    struct Chunk {
        uint32_t next;
        std::array<uint8_t, 60> bytes;
    };
    struct Stream {
        uint32_t first = 0;
        uint32_t last = 0;
        uint32_t size = 0;
    };
    struct Sink {
        BlockBuilder* builder;
        uint32_t encoder;
        void operator()(uint8_t byte) const { builder->PutByte(encoder, byte); }
    };
    struct Encoder {
        ColumnModel model;
        BitEncoder<Sink> coder;
        Stream stream;
    };
    static constexpr uint32_t kNone = UINT32_MAX;
    struct Column {
        RowColumn first;     // with its first value
        uint32_t from = 0;   // its first row
        uint32_t coded = 0;  // rows, from the block's first on; 0: it had no value yet
        uint32_t encoder = kNone;
    };

    void PutByte(uint32_t encoder, uint8_t byte);
    void AddTimes(const SampleTime& time);
    void AddValue(Column& column, const RowColumn& value);
    void BeginEncoder(Column& column);
    void PutEntry(BytePutter& bytes, const Column& column, ColumnId before) const;
    [[nodiscard]] uint32_t StreamChecksum(const Stream& stream) const;
    void CopyStream(const Stream& stream, uint8_t* to) const;

    size_t m_mostChunks;
    std::vector<Chunk> m_chunks;
    size_t m_usedChunks = 0;
    std::vector<Encoder> m_encoders;
    std::vector<Column> m_columns;
    std::vector<uint8_t> m_directory;
    std::array<Column, 2> m_times;
    uint32_t m_rows = 0;
    BlockHead m_head;
};
