// Which series are meant, and the columns that they make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kemdctl/performance/format.h"
#include "performance/history_reader.h"

// The numbers of the series that any of the patterns names, each once, in the order of the
// patterns: an id as in `list`, "disk_read_bytes/sda" or "disk_read_bytes{disk="sda"}"; a name,
// which stands for its series of all labels; or a pattern as a shell has it for one of these.
// Nothing, after a complaint with names that are similar, when one matches none. Without patterns
// all series.
[[nodiscard]] std::optional<std::vector<uint32_t>> ChooseSeries(
    std::span<const SeriesInfo> series, const std::vector<std::string>& patterns);

// What is shown beside each other: a series, or the sum of some.
struct Column {
    std::string heading;
    ValueFormat format;
    std::vector<uint32_t> series;
};
// A column for each series that the patterns name; without patterns those of the overview: CPU,
// memory, disks, network and pressure.
[[nodiscard]] std::optional<std::vector<Column>> ChooseColumns(
    const HistoryReader& reader, const std::vector<std::string>& patterns);

// A value of a column. `minimum` and `maximum` of a sum: of each series for itself.
using ColumnPoints = std::vector<HistoryPoint>;
[[nodiscard]] std::vector<ColumnPoints> ReadColumns(HistoryReader& reader,
                                                    std::span<const Column> columns,
                                                    HistorySpan span, int64_t step);
