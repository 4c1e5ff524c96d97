// What a history file holds, as far as it is known without its columns: logs, series, problems. It
// takes whatever bytes there are. One thread uses an object.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/unique_fd.h"
#include "performance/history_block.h"
#include "performance/history_marks.h"
#include "performance/history_points.h"
#include "performance/history_spans.h"
#include "performance/series.h"

inline int64_t StepOf(uint32_t log) {
    return log == kSamples ? 0 : (log == kMinutes ? kMinuteNs : kHourNs);
}
inline int64_t BeginOf(int64_t wall, int64_t step) {
    return step == 0 ? wall : (wall / step - (wall % step < 0 ? 1 : 0)) * step;
}

// Sealed or not, as far as it is known without its columns.
struct HistoryPart {
    const BlockRef* block = nullptr;
    const SlotRows* slot = nullptr;
    uint64_t sequence = 0;
    HistoryKey first;
    HistoryKey last;
    int64_t leastWall = 0;
    int64_t mostWall = 0;
};

struct HistoryLog {
    std::vector<SlotRows> slots;
    std::vector<BlockRef> blocks;
    std::vector<HistoryPart> parts;  // in the order of recording
    uint64_t listed = 0;             // whose series are known, up to this sequence
};

class HistoryContents {
  public:
    explicit HistoryContents(std::string path) : m_path(std::move(path)) {}

    // Reads it, or what has been written since; also another file in its place, as after a change
    // of its size. False with Error(); also a file that was cut has one, after what there is.
    bool Load();
    [[nodiscard]] const std::string& Host() const { return m_host; }
    [[nodiscard]] const std::string& BootId() const { return m_bootId; }
    [[nodiscard]] int64_t PeriodNs() const { return m_period; }
    [[nodiscard]] const std::vector<SeriesInfo>& Series() const { return m_series; }
    [[nodiscard]] const std::vector<std::string>& Problems() const { return m_problems; }
    [[nodiscard]] const std::string& Error() const { return m_error; }
    [[nodiscard]] const std::vector<HistoryPart>& Parts(uint32_t log) const {
        return m_logs[log].parts;
    }
    // The number of the column's series; -1: it has none any more.
    [[nodiscard]] int32_t SeriesAt(ColumnId id, uint16_t tag) const;
    // The times that the log's parts are about.
    [[nodiscard]] KeySpans Covered(uint32_t log) const;
    // The part's rows. False when the writer has overwritten it meanwhile, or with Error().
    bool ReadRows(uint32_t log, const HistoryPart& part, const ColumnFilter& isWanted,
                  BlockRows& rows);
    void TakeMarks(Area area, HistorySpan span, std::vector<StoredMark>& marks);

  private:
    // A place of the area of definitions.
    struct Place {
        bool isThere = false;
        uint16_t tag = 0;
        int32_t series = -1;  // its number, once a block refers to it
        SeriesInfo info;
    };

    bool Fail(int number);
    bool Reopen();
    bool LoadHead();
    uint32_t TakeDefinition(size_t at, std::span<const uint8_t> bytes);
    bool LoadDefinitions();
    bool LoadLog(uint32_t number);
    void ListParts(uint32_t number);
    bool ListSeries(uint32_t number);
    void Note(ColumnId id, uint16_t tag);
    void AddProblem(const std::string& problem);
    void AddDamage(uint32_t log, const HistoryPart& part);
    void FindNewest();
    int ReadArea(Area area, std::vector<uint8_t>& bytes) const;

    std::string m_path;
    UniqueFd m_fd;
    FileHead m_head;
    std::string m_host;
    std::string m_bootId;
    int64_t m_period = 0;
    std::vector<SeriesInfo> m_series;
    std::unordered_map<std::string, std::vector<uint32_t>> m_numbers;  // by SeriesId
    std::vector<Place> m_places;
    size_t m_unknown = 0;  // of them, that no block was seen to refer to
    std::array<HistoryLog, kLogs> m_logs;
    std::vector<std::string> m_problems;
    std::string m_error;
};
