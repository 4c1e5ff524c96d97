// Arbitrary bytes as a history file. Checksums would stop nearly every input, so what is inside a
// row, a directory and a column is fed to their readers directly, too.
#include "performance/column_model.h"
#include "performance/history_definitions.h"
#include "performance/history_marks.h"
#include "performance/history_reader.h"
#include "performance/history_row.h"
#include "tests/fuzz/fuzz.h"

namespace {

void ReadParts(std::span<const uint8_t> bytes) {
    SampleTime time;
    std::vector<RowColumn> columns;
    if (DecodeRow(bytes, time, columns)) (void)DecodeRow(bytes, time, columns);
    for (const bool isReal : {false, true}) {
        ColumnModel model(bytes.size(), isReal);
        BitDecoder coder(bytes.data(), bytes.data() + bytes.size());
        for (int row = 0; row < 1000; ++row) {
            if (model.Present(coder, false)) (void)model.Value(coder, 0);
        }
    }
    (void)ParseDefinition(bytes);
    (void)ParseMarks(bytes);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> copy(data, data + size);  // of exactly this size, for the sanitizers
    ReadParts(copy);
    const MemoryFile file;
    file.Fill({reinterpret_cast<const char*>(copy.data()), copy.size()});
    std::string error;
    const auto reader = HistoryReader::Open(file.Path(), error);
    Require(reader != nullptr || !error.empty(), "a failure without a reason");
    if (reader == nullptr) return 0;
    std::vector<uint32_t> all(reader->Series().size());
    for (uint32_t i = 0; i < all.size(); ++i) all[i] = i;
    std::vector<std::vector<HistoryPoint>> points;
    for (const int64_t step : {int64_t{0}, int64_t{60'000'000'000}}) {
        reader->Read(all, reader->Range(), step, points);
        for (const auto& series : points) {
            for (size_t i = 1; i < series.size(); ++i) {
                Require(series[i - 1].wall <= series[i].wall, "points out of order");
            }
        }
    }
    (void)reader->Marks(reader->Range());
    return 0;
}
