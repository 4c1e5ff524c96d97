#include "performance/history_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_map>

#include "base/file_io.h"
#include "performance/history_block.h"
#include "performance/history_definitions.h"
#include "performance/history_marks.h"
#include "performance/history_minutes.h"
#include "performance/history_spans.h"
#include "performance/history_steps.h"

namespace {

constexpr std::array<const char*, kLogs> kLogNames = {"samples", "minutes", "hours"};

int64_t StepOf(uint32_t log) {
    return log == kSamples ? 0 : (log == kMinutes ? kMinuteNs : kHourNs);
}
int64_t BeginOf(int64_t wall, int64_t step) {
    return step == 0 ? wall : (wall / step - (wall % step < 0 ? 1 : 0)) * step;
}

// Sealed or not, as far as it is known without its columns.
struct Part {
    const BlockRef* block = nullptr;
    const SlotRows* slot = nullptr;
    uint64_t sequence = 0;
    HistoryKey first;
    HistoryKey last;
    int64_t leastWall = 0;
    int64_t mostWall = 0;
};

struct Log {
    std::vector<SlotRows> slots;
    std::vector<BlockRef> blocks;
    std::vector<Part> parts;  // in the order of recording
    uint64_t listed = 0;      // whose series are known, up to this sequence
};

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

std::string TimeText(int64_t wall) {
    const time_t seconds = wall / 1'000'000'000;
    struct tm broken {};
    std::array<char, 32> text{};
    if (gmtime_r(&seconds, &broken) == nullptr) return "?";
    (void)strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &broken);
    return text.data();
}

}  // namespace

struct HistoryReader::File {
    // A place of the area of definitions.
    struct Place {
        bool isThere = false;
        uint16_t tag = 0;
        int32_t series = -1;  // its number, once a block refers to it
        SeriesInfo info;
    };

    std::string path;
    UniqueFd fd;
    FileHead head;
    std::string host;
    std::string bootId;
    int64_t period = 0;
    std::vector<SeriesInfo> series;
    std::unordered_map<std::string, std::vector<uint32_t>> numbers;  // by SeriesId
    std::vector<Place> places;
    size_t unknown = 0;  // of them, that no block was seen to refer to
    std::array<Log, kLogs> logs;
    std::vector<std::string> problems;
    std::string error;

    bool Fail(int number) {
        error = path + ": " + std::strerror(number);
        return false;
    }
    bool Reopen();
    bool Load();
    bool LoadHead();
    bool LoadDefinitions();
    bool LoadLog(uint32_t number);
    void ListParts(uint32_t number);
    void ListSeries(uint32_t number);
    void Note(ColumnId id, uint16_t tag);
    void AddProblem(const std::string& problem);
    void FindNewest();
    [[nodiscard]] int32_t SeriesAt(ColumnId id, uint16_t tag) const;
    [[nodiscard]] KeySpans Covered(uint32_t number) const;
    bool LoadPart(uint32_t number, const Part& part, const Request& request, BlockRows& rows);
    void ReadCoarse(uint32_t number, const std::vector<const KeySpans*>& finer, Request& request);
    void AddStepRow(const BlockRows& rows, size_t i, const StepRow& row, uint32_t number,
                    Request& request) const;
    [[nodiscard]] std::vector<bool> NeededSamples(const Request& request) const;
    void ReadSamples(Request& request);
    void AddSamples(const BlockRows& rows, Request& request) const;
    void ReadGroup(Request& request);
    void TakeMarks(Area area, HistorySpan span, std::vector<StoredMark>& marks) const;
};

void HistoryReader::File::AddProblem(const std::string& problem) {
    const std::string line = path + ": " + problem;
    if (std::find(problems.begin(), problems.end(), line) == problems.end()) {
        problems.push_back(line);
    }
}

// Again where another file is in its place, as after a change of its size.
bool HistoryReader::File::Reopen() {
    struct stat here {};
    struct stat there {};
    const bool isSame = fd.IsOpen() && fstat(fd.Get(), &here) == 0 &&
                        stat(path.c_str(), &there) == 0 && here.st_ino == there.st_ino &&
                        here.st_dev == there.st_dev;
    if (isSame) return true;
    UniqueFd opened = OpenRegularFile(path.c_str(), O_RDONLY);
    if (!opened.IsOpen()) return Fail(errno);
    fd = std::move(opened);
    places.clear();
    logs = {};
    return true;
}

bool HistoryReader::File::LoadHead() {
    const ReadResult got = ReadFullyAt(fd.Get(), &head, sizeof head, 0);
    if (got.error != 0) return Fail(got.error);
    error = got.count < sizeof head ? "too short for a history" : CheckFileHead(head);
    if (!error.empty()) {
        error = path + ": " + error;
        return false;
    }
    host = FixedText(head.host);
    struct stat status {};
    if (fstat(fd.Get(), &status) != 0) return Fail(errno);
    if (static_cast<uint64_t>(status.st_size) < head.size) {
        AddProblem("the file is cut: it has " + std::to_string(status.st_size) + " of " +
                   std::to_string(head.size) + " bytes");
    }
    return true;
}

bool HistoryReader::File::LoadDefinitions() {
    struct stat status {};
    if (fstat(fd.Get(), &status) != 0) return Fail(errno);
    const AreaPlace& area = head.areas[kDefinitions];
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    const uint64_t there = fileSize > area.offset ? fileSize - area.offset : 0;
    std::vector<uint8_t> bytes(std::min(area.size, there));
    const ReadResult got =
        ReadFullyAt(fd.Get(), bytes.data(), bytes.size(), static_cast<off_t>(area.offset));
    if (got.error != 0) return Fail(got.error);
    const size_t units = got.count / kDefinitionUnit;
    for (size_t i = 0; i < units; ++i) {
        auto definition = ParseDefinition(std::span(bytes).subspan(i * kDefinitionUnit));
        if (!definition) continue;
        if (places.size() <= i) places.resize(i + 1);
        Place& place = places[i];
        if (!place.isThere || place.tag != definition->tag) {
            place = {true, definition->tag, -1, std::move(definition->info)};
        }
        i += definition->units - 1;
    }
    unknown =
        static_cast<size_t>(std::count_if(places.begin(), places.end(), [](const Place& place) {
            return place.isThere && place.series < 0;
        }));
    return true;
}

void HistoryReader::File::Note(ColumnId id, uint16_t tag) {
    const uint32_t at = SeriesOf(id);
    if (at >= places.size() || !places[at].isThere || places[at].tag != tag) return;
    Place& place = places[at];
    if (place.series >= 0) return;
    --unknown;
    std::vector<uint32_t>& known = numbers[SeriesId(place.info)];
    for (const uint32_t number : known) {
        if (IsSameSeries(series[number], place.info)) place.series = static_cast<int32_t>(number);
    }
    if (place.series >= 0) return;
    place.series = static_cast<int32_t>(series.size());
    known.push_back(static_cast<uint32_t>(series.size()));
    series.push_back(place.info);
}

int32_t HistoryReader::File::SeriesAt(ColumnId id, uint16_t tag) const {
    const uint32_t at = SeriesOf(id);
    return at < places.size() && places[at].tag == tag ? places[at].series : -1;
}

void HistoryReader::File::ListParts(uint32_t number) {
    Log& log = logs[number];
    log.parts.clear();
    for (const BlockRef& block : log.blocks) {
        log.parts.push_back({&block, nullptr, block.head.sequence, block.First(), block.Last(),
                             block.head.leastWall, block.head.mostWall});
    }
    for (const SlotRows& slot : log.slots) {
        log.parts.push_back({nullptr,
                             &slot,
                             slot.head.sequence,
                             {slot.head.boot, slot.first.monotonic},
                             {slot.head.boot, slot.last.monotonic},
                             slot.leastWall,
                             slot.mostWall});
    }
    for (size_t i = 1; i < log.parts.size(); ++i) {
        const Part& before = log.parts[i - 1];
        if (log.parts[i].sequence == before.sequence + 1) continue;
        AddProblem(std::string(kLogNames[number]) + " are missing between " +
                   TimeText(before.mostWall) + " and " + TimeText(log.parts[i].leastWall));
    }
}

// The newest first: as a rule they have every series that is defined.
void HistoryReader::File::ListSeries(uint32_t number) {
    Log& log = logs[number];
    std::vector<DirectoryEntry> entries;
    const uint64_t listed = log.listed;
    for (size_t i = log.parts.size(); i-- > 0 && unknown > 0;) {
        const Part& part = log.parts[i];
        if (part.slot != nullptr) {
            for (const RowColumn& column : part.slot->columns) Note(column.id, column.tag);
            continue;
        }
        if (part.sequence <= listed) break;
        log.listed = std::max(log.listed, part.sequence);
        if (ReadDirectory(fd.Get(), *part.block, entries) == BlockState::kDamaged) {
            AddProblem(std::string(kLogNames[number]) + " from " + TimeText(part.leastWall) +
                       " to " + TimeText(part.mostWall) + " are damaged");
        }
        for (const DirectoryEntry& entry : entries) Note(entry.id, entry.tag);
    }
}

bool HistoryReader::File::LoadLog(uint32_t number) {
    Log& log = logs[number];
    log.slots.clear();
    log.blocks.clear();
    const int failed = ReadLog(fd.Get(), head.areas[number], number, log.blocks, log.slots);
    if (failed != 0) return Fail(failed);
    ListParts(number);
    return true;
}

void HistoryReader::File::FindNewest() {
    for (const uint32_t number : {kHours, kMinutes, kSamples}) {
        if (logs[number].parts.empty()) continue;
        const Part& part = logs[number].parts.back();
        bootId = FixedText(part.slot != nullptr ? part.slot->head.bootId : part.block->head.bootId);
        period = part.slot != nullptr ? part.slot->head.period : part.block->head.period;
    }
}

bool HistoryReader::File::Load() {
    problems.clear();
    if (!Reopen() || !LoadHead()) return false;
    // The samples last, so that no minute is there before its samples are.
    for (const uint32_t number : {kHours, kMinutes, kSamples}) {
        if (!LoadLog(number)) return false;
    }
    // After the blocks that refer to them.
    if (!LoadDefinitions()) return false;
    for (uint32_t number = 0; number < kLogs; ++number) ListSeries(number);
    FindNewest();
    return true;
}

bool HistoryReader::File::LoadPart(uint32_t number, const Part& part, const Request& request,
                                   BlockRows& rows) {
    const ColumnFilter isWanted = [&](ColumnId id, uint16_t tag) {
        if (SeriesOf(id) == kNoSeries) return true;
        const int32_t at = SeriesAt(id, tag);
        return at >= 0 && request.positions[static_cast<size_t>(at)] >= 0;
    };
    if (part.slot != nullptr) {
        ReadSlot(*part.slot, isWanted, rows);
        return true;
    }
    const BlockState state = ReadBlock(fd.Get(), *part.block, isWanted, rows);
    if (state == BlockState::kDamaged) {
        AddProblem(std::string(kLogNames[number]) + " from " + TimeText(part.leastWall) + " to " +
                   TimeText(part.mostWall) + " are damaged");
    }
    return state != BlockState::kGone;
}

KeySpans HistoryReader::File::Covered(uint32_t number) const {
    KeySpans covered;
    uint64_t before = 0;
    for (const Part& part : logs[number].parts) {
        // The times of a row are those of its last sample.
        HistoryKey first = part.first;
        first.monotonic -= std::min(StepOf(number), first.monotonic);
        covered.Add(first, part.last, part.sequence == before + 1);
        before = part.sequence;
    }
    return covered;
}

void HistoryReader::File::AddStepRow(const BlockRows& rows, size_t i, const StepRow& row,
                                     uint32_t number, Request& request) const {
    const int64_t begin = BeginOf(row.time.wall, StepOf(number));
    ForEachStep(rows, i, [&](uint32_t place, uint16_t tag, const std::array<uint64_t, 4>& parts) {
        const int32_t at = SeriesAt(MakeColumn(place, false, 0), tag);
        if (at < 0) return;
        const auto position = static_cast<size_t>(request.positions[static_cast<size_t>(at)]);
        const SeriesInfo& info = series[static_cast<size_t>(at)];
        HistoryPoint point = UnpackStep(info, parts);
        point.wall = begin + StepOf(number);
        request.mergers[position].AddRow({rows.boot, row.time.monotonic}, begin, point,
                                         StepWeight(info, row));
    });
}

// Minutes or hours that no finer resolution has. What it has the beginning of is taken from there:
// where its end was lost in a power cut, the seconds before count more than the whole minute.
void HistoryReader::File::ReadCoarse(uint32_t number, const std::vector<const KeySpans*>& finer,
                                     Request& request) {
    const int64_t step = StepOf(number);
    const HistorySpan span = request.span;
    bool goesOn = false;
    uint64_t sequence = 0;
    for (const Part& part : logs[number].parts) {
        const bool isIn = BeginOf(part.mostWall, step) > span.from - step &&
                          BeginOf(part.leastWall, step) < span.to;
        HistoryKey first = part.first;
        first.monotonic -= std::min(step, first.monotonic);
        const bool isFiner = std::any_of(finer.begin(), finer.end(), [&](const KeySpans* other) {
            return other->Cover(first, part.last);
        });
        BlockRows rows;
        if (!isIn || isFiner || !LoadPart(number, part, request, rows)) continue;
        goesOn = goesOn && part.sequence == sequence + 1;
        sequence = part.sequence;
        for (size_t i = 0; i < rows.times.size(); ++i) {
            StepRow row;
            if (!TakeStepRow(rows, i, row)) continue;
            const HistoryKey last{rows.boot, row.time.monotonic};
            const HistoryKey begin{rows.boot,
                                   row.time.monotonic - static_cast<int64_t>(row.length)};
            const bool isElsewhere =
                BeginOf(row.time.wall, step) + step <= span.from || row.time.wall < 0 ||
                BeginOf(row.time.wall, step) >= span.to ||
                std::any_of(finer.begin(), finer.end(),
                            [&](const KeySpans* other) { return other->Cover(begin, begin); });
            if (!isElsewhere) {
                request.used[number].Add(begin, last, goesOn);
                AddStepRow(rows, i, row, number, request);
            }
            goesOn = !isElsewhere;
        }
    }
}

std::vector<bool> HistoryReader::File::NeededSamples(const Request& request) const {
    const std::vector<Part>& parts = logs[kSamples].parts;
    std::vector<bool> needed(parts.size() + 1);
    bool isNextWanted = false;
    for (size_t i = parts.size(); i-- > 0;) {
        const Part& part = parts[i];
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
        counts[i] = !request.IsUsed(key, key);
    }
    for (const ColumnValues& column : rows.columns) {
        const int32_t at = SeriesAt(column.id, column.tag);
        if (at < 0 || PartOf(column.id) != kLast) continue;
        StepMerger& merger =
            request.mergers[static_cast<size_t>(request.positions[static_cast<size_t>(at)])];
        for (size_t i = 0; i < counts.size(); ++i) {
            if (column.isPresent[i] == 0) continue;
            merger.AddSample(rows.boot, rows.times[i], column.values[i], counts[i]);
        }
    }
}

void HistoryReader::File::ReadSamples(Request& request) {
    const std::vector<bool> needed = NeededSamples(request);
    for (size_t i = 0; i + 1 < needed.size(); ++i) {
        BlockRows rows;
        if (!needed[i]) continue;
        if (LoadPart(kSamples, logs[kSamples].parts[i], request, rows)) AddSamples(rows, request);
    }
}

// Hours first, so that minutes within one that is taken are not counted twice, then minutes, then
// samples.
void HistoryReader::File::ReadGroup(Request& request) {
    const bool byHours = request.step > 0 && request.step % kHourNs == 0;
    const bool byMinutes = request.step > 0 && request.step % kMinuteNs == 0;
    const KeySpans samples = Covered(kSamples);
    const KeySpans minutes = Covered(kMinutes);
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

void HistoryReader::File::TakeMarks(Area area, HistorySpan span,
                                    std::vector<StoredMark>& marks) const {
    struct stat status {};
    const AreaPlace& place = head.areas[area];
    if (fstat(fd.Get(), &status) != 0) return;
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    std::vector<uint8_t> bytes(
        std::min(place.size, fileSize > place.offset ? fileSize - place.offset : 0));
    const ReadResult got =
        ReadFullyAt(fd.Get(), bytes.data(), bytes.size(), static_cast<off_t>(place.offset));
    for (StoredMark& stored : ParseMarks(std::span(bytes).first(got.count))) {
        const int64_t wall = stored.mark.time.wall;
        if (wall >= span.from && wall < span.to) marks.push_back(std::move(stored));
    }
}

std::unique_ptr<HistoryReader> HistoryReader::Open(const std::string& path, std::string& error) {
    auto file = std::make_unique<File>();
    file->path = path;
    if (!file->Load()) {
        error = file->error;
        return nullptr;
    }
    return std::unique_ptr<HistoryReader>(new HistoryReader(std::move(file)));
}

HistoryReader::HistoryReader(std::unique_ptr<File> file) : m_file(std::move(file)) {}
HistoryReader::~HistoryReader() = default;
const std::string& HistoryReader::Host() const {
    return m_file->host;
}
const std::string& HistoryReader::BootId() const {
    return m_file->bootId;
}
int64_t HistoryReader::PeriodNs() const {
    return m_file->period;
}
const std::vector<SeriesInfo>& HistoryReader::Series() const {
    return m_file->series;
}
const std::vector<std::string>& HistoryReader::Problems() const {
    return m_file->problems;
}
const std::string& HistoryReader::Error() const {
    return m_file->error;
}

HistorySpan HistoryReader::Range() const {
    HistorySpan range;
    bool isFirst = true;
    for (uint32_t number = 0; number < kLogs; ++number) {
        for (const Part& part : m_file->logs[number].parts) {
            const int64_t from = BeginOf(part.leastWall, StepOf(number));
            range.from = isFirst ? from : std::min(range.from, from);
            range.to = isFirst ? part.mostWall + 1 : std::max(range.to, part.mostWall + 1);
            isFirst = false;
        }
    }
    return range;
}

std::vector<Mark> HistoryReader::Marks(HistorySpan span) const {
    std::vector<StoredMark> stored;
    m_file->TakeMarks(kMarks, span, stored);
    m_file->TakeMarks(kProcessNotes, span, stored);
    std::stable_sort(stored.begin(), stored.end(), [](const StoredMark& a, const StoredMark& b) {
        return HistoryKey{a.boot, a.mark.time.monotonic} <
               HistoryKey{b.boot, b.mark.time.monotonic};
    });
    std::vector<Mark> marks;
    for (StoredMark& mark : stored) marks.push_back(std::move(mark.mark));
    return marks;
}

bool HistoryReader::Read(std::span<const uint32_t> series, HistorySpan span, int64_t step,
                         std::vector<std::vector<HistoryPoint>>& points) {
    // Not all at once: a damaged file may have very many.
    constexpr size_t kGroup = 1024;
    points.assign(series.size(), {});
    for (size_t from = 0; from < series.size(); from += kGroup) {
        Request request;
        request.span = span;
        request.step = step;
        request.positions.assign(m_file->series.size(), -1);
        const size_t to = std::min(series.size(), from + kGroup);
        for (size_t i = from; i < to; ++i) {
            request.positions.at(series[i]) = static_cast<int32_t>(i - from);
            request.mergers.emplace_back(m_file->series[series[i]], span, step, points[i]);
        }
        m_file->ReadGroup(request);
    }
    return true;
}

bool HistoryReader::Refresh() {
    return m_file->Load();
}
