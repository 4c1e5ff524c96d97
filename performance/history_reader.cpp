#include "performance/history_reader.h"

#include <algorithm>
#include <array>

#include "performance/history_contents.h"
#include "performance/history_minutes.h"
#include "performance/history_steps.h"

namespace {

// What one call of Read works with.
struct Request {
    HistorySpan span;
    int64_t step = 0;
    std::vector<int32_t> positions;  // of each series in the request; -1: not asked for
    std::vector<StepMerger> mergers;
    std::array<KeySpans, kLogs> used;  // what minutes and hours answer for
    [[nodiscard]] bool IsUsed(HistoryKey first, HistoryKey last) const {
        return used[kMinutes].Cover(first, last) || used[kHours].Cover(first, last);
    }
};

}  // namespace

struct HistoryReader::File {
    HistoryContents contents;

    bool ReadRows(uint32_t number, const HistoryPart& part, const Request& request,
                  BlockRows& rows);
    void AddStepRow(const BlockRows& rows, size_t i, const StepRow& row, uint32_t number,
                    Request& request) const;
    static bool IsFiner(const std::vector<const KeySpans*>& finer, HistoryKey first,
                        HistoryKey last);
    void AddStepRows(const BlockRows& rows, uint32_t number,
                     const std::vector<const KeySpans*>& finer, Request& request,
                     bool& goesOn) const;
    void ReadCoarse(uint32_t number, const std::vector<const KeySpans*>& finer, Request& request);
    [[nodiscard]] std::vector<bool> NeededSamples(const Request& request) const;
    void AddSamples(const BlockRows& rows, Request& request) const;
    void ReadSamples(Request& request);
    void ReadGroup(Request& request);
};

bool HistoryReader::File::ReadRows(uint32_t number, const HistoryPart& part, const Request& request,
                                   BlockRows& rows) {
    const ColumnFilter isWanted = [&](ColumnId id, uint16_t tag) {
        if (SeriesOf(id) == kNoSeries) return true;
        const int32_t at = contents.SeriesAt(id, tag);
        return at >= 0 && request.positions[static_cast<size_t>(at)] >= 0;
    };
    return contents.ReadRows(number, part, isWanted, rows);
}

void HistoryReader::File::AddStepRow(const BlockRows& rows, size_t i, const StepRow& row,
                                     uint32_t number, Request& request) const {
    const int64_t begin = BeginOf(row.time.wall, StepOf(number));
    ForEachStep(rows, i, [&](uint32_t place, uint16_t tag, const StepCells& step) {
        const int32_t at = contents.SeriesAt(MakeColumn(place, false, 0), tag);
        if (at < 0) return;
        const auto position = static_cast<size_t>(request.positions[static_cast<size_t>(at)]);
        const SeriesInfo& info = contents.Series()[static_cast<size_t>(at)];
        HistoryPoint point = UnpackStep(info, step);
        point.wall = begin + StepOf(number);
        request.mergers[position].AddRow({rows.boot, row.time.monotonic}, begin, point,
                                         StepWeight(info, row));
    });
}

bool HistoryReader::File::IsFiner(const std::vector<const KeySpans*>& finer, HistoryKey first,
                                  HistoryKey last) {
    return std::any_of(finer.begin(), finer.end(),
                       [&](const KeySpans* other) { return other->Cover(first, last); });
}

// Minutes or hours that no finer resolution has. What it has the beginning of is taken from there:
// where its end was lost in a power cut, the seconds before count more than the whole minute.
void HistoryReader::File::ReadCoarse(uint32_t number, const std::vector<const KeySpans*>& finer,
                                     Request& request) {
    const int64_t step = StepOf(number);
    const HistorySpan span = request.span;
    bool goesOn = false;
    uint64_t sequence = 0;
    for (const HistoryPart& part : contents.Parts(number)) {
        const bool isIn = BeginOf(part.mostWall, step) > span.from - step &&
                          BeginOf(part.leastWall, step) < span.to;
        HistoryKey first = part.first;
        first.monotonic -= std::min(step, first.monotonic);
        BlockRows rows;
        if (!isIn || IsFiner(finer, first, part.last) || !ReadRows(number, part, request, rows)) {
            continue;
        }
        goesOn = goesOn && part.sequence == sequence + 1;
        sequence = part.sequence;
        AddStepRows(rows, number, finer, request, goesOn);
    }
}

// `goesOn`: whether the row before the block's first one was taken, and its last one after it.
void HistoryReader::File::AddStepRows(const BlockRows& rows, uint32_t number,
                                      const std::vector<const KeySpans*>& finer, Request& request,
                                      bool& goesOn) const {
    const int64_t step = StepOf(number);
    for (size_t i = 0; i < rows.times.size(); ++i) {
        StepRow row;
        if (!TakeStepRow(rows, i, row)) continue;
        const int64_t wall = row.time.wall;
        const HistoryKey last{rows.boot, row.time.monotonic};
        const HistoryKey first{rows.boot, row.time.monotonic - static_cast<int64_t>(row.length)};
        const bool isIn = wall >= 0 && BeginOf(wall, step) + step > request.span.from &&
                          BeginOf(wall, step) < request.span.to;
        const bool isTaken = isIn && !IsFiner(finer, first, first);
        if (isTaken) {
            request.used[number].Add(first, last, goesOn);
            AddStepRow(rows, i, row, number, request);
        }
        goesOn = isTaken;
    }
}

std::vector<bool> HistoryReader::File::NeededSamples(const Request& request) const {
    const std::vector<HistoryPart>& parts = contents.Parts(kSamples);
    std::vector<bool> needed(parts.size() + 1);
    bool isNextWanted = false;
    for (size_t i = parts.size(); i-- > 0;) {
        const HistoryPart& part = parts[i];
        const bool isIn = part.mostWall >= request.span.from && part.leastWall < request.span.to;
        const bool isWanted = isIn && !request.IsUsed(part.first, part.last);
        // The rate of its first sample needs the one before.
        needed[i] = isWanted || (isNextWanted && parts[i + 1].leastWall >= request.span.from);
        isNextWanted = isWanted;
    }
    return needed;
}

void HistoryReader::File::AddSamples(const BlockRows& rows, Request& request) const {
    std::vector<bool> counts(rows.times.size());
    for (size_t i = 0; i < counts.size(); ++i) {
        const HistoryKey key{rows.boot, rows.times[i].monotonic};
        const int64_t wall = rows.times[i].wall;
        const bool isIn = wall >= request.span.from && wall < request.span.to;
        counts[i] = isIn && !request.IsUsed(key, key);
    }
    const auto counted = static_cast<size_t>(std::count(counts.begin(), counts.end(), true));
    for (const ColumnValues& column : rows.columns) {
        const int32_t at = contents.SeriesAt(column.id, column.tag);
        if (at < 0 || PartOf(column.id) != kLast) continue;
        StepMerger& merger =
            request.mergers[static_cast<size_t>(request.positions[static_cast<size_t>(at)])];
        merger.Reserve(counted);
        for (size_t i = 0; i < counts.size(); ++i) {
            if (column.isPresent[i] == 0) continue;
            if (counts[i]) {
                merger.AddSample(rows.boot, rows.times[i], column.values[i]);
            } else {
                merger.KnowSample(rows.boot, rows.times[i], column.values[i]);
            }
        }
    }
}

void HistoryReader::File::ReadSamples(Request& request) {
    const std::vector<bool> needed = NeededSamples(request);
    for (size_t i = 0; i + 1 < needed.size(); ++i) {
        BlockRows rows;
        if (!needed[i]) continue;
        if (ReadRows(kSamples, contents.Parts(kSamples)[i], request, rows))
            AddSamples(rows, request);
    }
}

// Hours first, so that minutes within one that is taken are not counted twice, then minutes, then
// samples.
void HistoryReader::File::ReadGroup(Request& request) {
    const bool byHours = request.step > 0 && request.step % kHourNs == 0;
    const bool byMinutes = request.step > 0 && request.step % kMinuteNs == 0;
    const KeySpans samples = contents.Covered(kSamples);
    const KeySpans minutes = contents.Covered(kMinutes);
    std::vector<const KeySpans*> finer;
    if (!byHours) finer.push_back(&minutes);
    if (!byMinutes) finer.push_back(&samples);
    ReadCoarse(kHours, finer, request);
    finer = {&request.used[kHours]};
    if (!byMinutes) finer.push_back(&samples);
    ReadCoarse(kMinutes, finer, request);
    ReadSamples(request);
    for (StepMerger& merger : request.mergers) merger.Finish();
}

std::unique_ptr<HistoryReader> HistoryReader::Open(const std::string& path, std::string& error) {
    auto file = std::make_unique<File>(File{HistoryContents(path)});
    if (!file->contents.Load()) {
        error = file->contents.Error();
        return nullptr;
    }
    return std::unique_ptr<HistoryReader>(new HistoryReader(std::move(file)));
}

HistoryReader::HistoryReader(std::unique_ptr<File> file) : m_file(std::move(file)) {}
HistoryReader::~HistoryReader() = default;
const std::string& HistoryReader::Host() const {
    return m_file->contents.Host();
}
const std::string& HistoryReader::BootId() const {
    return m_file->contents.BootId();
}
int64_t HistoryReader::PeriodNs() const {
    return m_file->contents.PeriodNs();
}
const std::vector<SeriesInfo>& HistoryReader::Series() const {
    return m_file->contents.Series();
}
const std::vector<std::string>& HistoryReader::Problems() const {
    return m_file->contents.Problems();
}
const std::string& HistoryReader::Error() const {
    return m_file->contents.Error();
}

HistorySpan HistoryReader::Range() const {
    HistorySpan range;
    bool isFirst = true;
    for (uint32_t number = 0; number < kLogs; ++number) {
        for (const HistoryPart& part : m_file->contents.Parts(number)) {
            const int64_t from = BeginOf(part.leastWall, StepOf(number));
            range.from = isFirst ? from : std::min(range.from, from);
            range.to = isFirst ? part.mostWall + 1 : std::max(range.to, part.mostWall + 1);
            isFirst = false;
        }
    }
    return range;
}

std::vector<Mark> HistoryReader::Marks(HistorySpan span) {
    std::vector<StoredMark> stored;
    m_file->contents.TakeMarks(kMarks, span, stored);
    m_file->contents.TakeMarks(kProcessNotes, span, stored);
    std::stable_sort(stored.begin(), stored.end(), [](const StoredMark& a, const StoredMark& b) {
        return HistoryKey{a.boot, a.mark.time.monotonic} <
               HistoryKey{b.boot, b.mark.time.monotonic};
    });
    std::vector<Mark> marks;
    marks.reserve(stored.size());
    for (StoredMark& mark : stored) marks.push_back(std::move(mark.mark));
    return marks;
}

void HistoryReader::Read(std::span<const uint32_t> series, HistorySpan span, int64_t step,
                         std::vector<std::vector<HistoryPoint>>& points) {
    // Not all at once: a damaged file may have very many.
    constexpr size_t kGroup = 1024;
    points.assign(series.size(), {});
    for (size_t from = 0; from < series.size(); from += kGroup) {
        Request request;
        request.span = span;
        request.step = step;
        request.positions.assign(m_file->contents.Series().size(), -1);
        const size_t to = std::min(series.size(), from + kGroup);
        for (size_t i = from; i < to; ++i) {
            request.positions.at(series[i]) = static_cast<int32_t>(i - from);
            request.mergers.emplace_back(m_file->contents.Series()[series[i]], span, step,
                                         points[i]);
        }
        m_file->ReadGroup(request);
    }
}

bool HistoryReader::Refresh() {
    return m_file->contents.Load();
}
