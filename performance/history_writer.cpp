#include "performance/history_writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "performance/block_log.h"
#include "performance/history_file.h"
#include "performance/history_marks.h"
#include "performance/history_minutes.h"

namespace {

constexpr uint32_t kNoNumber = UINT32_MAX;

uint64_t Identity(const SeriesInfo& info) {
    const std::hash<std::string> hash;
    return hash(info.name) * 31 + hash(info.labels) * 7 + uint64_t{info.divide} * 5 +
           uint64_t{info.multiply} * 3 + static_cast<uint64_t>(info.kind) * 2 +
           (info.isReal ? 1 : 0);
}

}  // namespace

struct HistoryWriter::File {
    // What a place in the table is here.
    struct Known {
        uint64_t identity = 0;
        uint32_t place = kNoSeries;  // of its definition
        uint16_t tag = 0;
        uint32_t minutes = kNoNumber;
        uint64_t block = 0;   // the sample block whose
        uint32_t column = 0;  // column it is
    };

    std::unique_ptr<HistoryFile> file;
    HistoryDefinitions definitions;
    HistoryMarks marks;
    HistoryMarks processNotes;
    std::array<BlockLog, kLogs> logs;
    HistoryMinutes minutes;
    uint32_t boot = 1;
    std::map<uint32_t, BlockOrigin> origins;  // of the boots in the file, and this one
    std::string findings;
    uint64_t generation = UINT64_MAX;
    std::vector<Known> known;
    std::vector<Cell> cells;
    bool isHourOver = false;

    explicit File(std::unique_ptr<HistoryFile> opened)
        : file(std::move(opened)),
          definitions(file->Bytes(kDefinitions)),
          marks(file->Bytes(kMarks)),
          processNotes(file->Bytes(kProcessNotes)),
          logs{MakeLog(kSamples), MakeLog(kMinutes), MakeLog(kHours)},
          minutes([this](const StepRow& row) { PutStepRow(row); }) {}

    BlockLog MakeLog(uint32_t log) {
        return {log, file->Bytes(log), file->Head().areas[log].slot, definitions};
    }
    int Resume(const HistorySettings& settings);
    int ResumeSteps();
    ColumnFilter Defined() const;
    int ReadSteps(uint32_t log, HistoryKey from, HistoryKey& last);
    void TakeMinute(const BlockRows& rows, size_t i, const StepRow& row);
    int ReadSamples(HistoryKey from);
    void TakeSample(const BlockRows& rows, size_t row, const std::vector<uint32_t>& numbers,
                    HistoryKey from);
    void Learn(const SeriesTable& table);
    void LearnOne(const SeriesTable& table, SeriesTable::Index index);
    void Trim(const SeriesTable& table);
    void AddColumns(const SeriesTable& table);
    void PutStepRow(const StepRow& row);
    void AddStepColumns(uint32_t log);
    void FillStepCells(const StepRow& row);
    int Convert(const HistoryFile& old);
    bool Translate(const HistoryDefinitions& from, ColumnId& id, uint16_t& tag);
    void ConvertBlock(const HistoryFile& old, const BlockRef& block, const HistoryDefinitions& from,
                      uint32_t log);
    void ConvertSlot(const SlotRows& slot, const HistoryDefinitions& from, uint32_t log);
};

void HistoryWriter::File::LearnOne(const SeriesTable& table, SeriesTable::Index index) {
    const SeriesInfo& info = table.Info(index);
    Known& series = known[index];
    series = {};
    series.identity = Identity(info);
    series.place = definitions.Place(info);
    if (series.place == kNoSeries) return;
    series.tag = definitions.Tag(series.place);
    series.minutes = minutes.Number(series.place, series.tag, info);
}

// Looks those series up whose place in the table has got another one.
void HistoryWriter::File::Learn(const SeriesTable& table) {
    generation = table.Generation();
    known.resize(table.Size());
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        if (table.IsUsed(i) && known[i].identity != Identity(table.Info(i))) LearnOne(table, i);
    }
}

// Series that are gone are forgotten, which changes the numbers of the others.
void HistoryWriter::File::Trim(const SeriesTable& table) {
    isHourOver = false;
    if (!minutes.Trim()) return;
    known.clear();
    Learn(table);
}

void HistoryWriter::File::AddColumns(const SeriesTable& table) {
    BlockLog& log = logs[kSamples];
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        Known& series = known[i];
        if (!table.HasValue(i) || series.place == kNoSeries || series.block == log.Block())
            continue;
        // It had no value for so long that another series has got its place.
        if (!definitions.IsThere(series.place, series.tag)) LearnOne(table, i);
        if (series.place == kNoSeries) continue;
        const ColumnId id = MakeColumn(series.place, table.Info(i).isReal, kLast);
        series.block = log.Block();
        series.column = log.AddColumns({&id, 1}, series.tag);
    }
}

void HistoryWriter::File::AddStepColumns(uint32_t number) {
    BlockLog& log = logs[number];
    const size_t which = number - 1;
    constexpr ColumnId kOfRow[] = {kCountColumn, kLengthColumn, kRateColumn};
    (void)log.AddColumns(kOfRow, 0);
    for (HistoryMinutes::Series& series : minutes.All()) {
        if (series.steps[which].weight == 0 || series.block[which] == log.Block()) continue;
        std::array<ColumnId, 4> ids{};
        for (uint32_t part = 0; part < ids.size(); ++part) {
            ids[part] = MakeColumn(series.place, IsRealPart(series.info, part), part);
        }
        series.block[which] = log.Block();
        series.column[which] = log.AddColumns(ids, series.tag);
    }
}

void HistoryWriter::File::FillStepCells(const StepRow& row) {
    const size_t which = row.log - 1;
    const BlockLog& log = logs[row.log];
    cells.assign(log.Columns(), {});
    cells[0] = {row.samples, true};
    cells[1] = {row.length, true};
    cells[2] = {row.rateMs, true};
    for (const HistoryMinutes::Series& series : minutes.All()) {
        if (series.steps[which].weight == 0) continue;
        const uint32_t column = series.column[which];
        const Cell& before = log.Before(column);
        StepCells step{
            {}, before.isPresent, before.value, row.time.monotonic - log.TimeBefore().monotonic};
        PackStep(series.info, series.steps[which], step);
        for (size_t i = 0; i < step.parts.size(); ++i) cells[column + i] = {step.parts[i], true};
    }
}

void HistoryWriter::File::PutStepRow(const StepRow& row) {
    isHourOver = isHourOver || row.log == kHours;
    logs[row.log].SetOrigin(origins[row.boot]);
    bool isDone = false;
    while (!isDone) {
        AddStepColumns(row.log);
        FillStepCells(row);
        isDone = logs[row.log].Append(row.time, cells);
    }
}

// An errno number.
int HistoryWriter::File::Resume(const HistorySettings& settings) {
    const int fd = file->Descriptor();
    const auto& areas = file->Head().areas;
    int failed = 0;
    for (uint32_t log = 0; log < kLogs && failed == 0; ++log) {
        failed = FindOrigins(fd, areas[log], log, origins);
    }
    const uint32_t marked = std::max(marks.NewestBoot(), processNotes.NewestBoot());
    const uint32_t newest = std::max(marked, origins.empty() ? 0 : origins.rbegin()->first);
    const auto found = origins.find(newest);
    const bool isSame = found != origins.end() && found->second.bootId == settings.bootId;
    boot = newest + (isSame ? 0 : 1);
    origins[boot] = {boot, settings.bootId, settings.periodNs};
    for (uint32_t log = 0; log < kLogs && failed == 0; ++log) {
        failed = logs[log].Resume(fd, areas[log]);
    }
    if (failed != 0) return failed;
    logs[kSamples].SetOrigin(origins[boot]);
    return ResumeSteps();
}

ColumnFilter HistoryWriter::File::Defined() const {
    return [this](ColumnId id, uint16_t tag) {
        return SeriesOf(id) == kNoSeries || definitions.IsThere(SeriesOf(id), tag);
    };
}

void HistoryWriter::File::TakeMinute(const BlockRows& rows, size_t i, const StepRow& row) {
    minutes.AddMinute(row);
    ForEachStep(rows, i, [&](uint32_t place, uint16_t tag, const StepCells& step) {
        const auto definition = definitions.Find(place, tag);
        if (!definition) return;
        StepValues values = UnpackStepValues(definition->info, step);
        values.SetWeight(StepWeight(definition->info, row));
        minutes.AddStep(minutes.Number(place, tag, definition->info), values);
    });
}

// `last`: the key of the last row of the log; minutes after `from` are taken for the current hour.
int HistoryWriter::File::ReadSteps(uint32_t log, HistoryKey from, HistoryKey& last) {
    last = from;
    const auto take = [&](const BlockRows& rows) {
        for (size_t i = 0; i < rows.times.size(); ++i) {
            const HistoryKey key{rows.boot, rows.times[i].monotonic};
            if (key <= from) continue;
            last = std::max(last, key);
            StepRow row;
            if (log == kMinutes && TakeStepRow(rows, i, row)) TakeMinute(rows, i, row);
        }
    };
    return ForEachBlock(file->Descriptor(), file->Head().areas[log], log, from, Defined(), take);
}

// Samples after `from` are taken for the current minute, those before it for rates.
int HistoryWriter::File::ReadSamples(HistoryKey from) {
    const auto take = [&](const BlockRows& rows) {
        std::vector<uint32_t> numbers;
        for (const ColumnValues& column : rows.columns) {
            const uint32_t place = SeriesOf(column.id);
            const auto definition = definitions.Find(place, column.tag);
            numbers.push_back(definition ? minutes.Number(place, column.tag, definition->info)
                                         : kNoNumber);
        }
        for (size_t row = 0; row < rows.times.size(); ++row) TakeSample(rows, row, numbers, from);
    };
    return ForEachBlock(file->Descriptor(), file->Head().areas[kSamples], kSamples, from, Defined(),
                        take);
}

void HistoryWriter::File::TakeSample(const BlockRows& rows, size_t row,
                                     const std::vector<uint32_t>& numbers, HistoryKey from) {
    const SampleTime& time = rows.times[row];
    const bool isNew = HistoryKey{rows.boot, time.monotonic} > from;
    if (isNew) minutes.Begin(rows.boot, time);
    for (size_t i = 0; i < numbers.size(); ++i) {
        if (numbers[i] == kNoNumber || rows.columns[i].isPresent[row] == 0) continue;
        const uint64_t bits = rows.columns[i].values[row];
        if (isNew) {
            minutes.Set(numbers[i], bits);
        } else {
            minutes.Know(numbers[i], rows.boot, time, bits);
        }
    }
}

// The current minute and hour begin with what the file has of them, whatever ended the last run.
int HistoryWriter::File::ResumeSteps() {
    HistoryKey hour;
    HistoryKey minute;
    int failed = ReadSteps(kHours, {}, hour);
    if (failed == 0) failed = ReadSteps(kMinutes, hour, minute);
    return failed != 0 ? failed : ReadSamples(minute);
}

std::unique_ptr<HistoryWriter> HistoryWriter::Open(const HistorySettings& settings,
                                                   std::string& error) {
    std::string findings;
    auto opened = HistoryFile::Open(settings, findings, error);
    if (opened == nullptr) return nullptr;
    std::unique_ptr<HistoryFile> other;
    if (opened->Head().size != MakeFileHead(settings.size, "").size) {
        other = HistoryFile::MakeOther(settings, findings);
    }
    if (other != nullptr) {
        File converted(std::move(other));
        int failed = converted.Convert(*opened);
        if (failed == 0) failed = converted.file->Replace(settings.path);
        if (failed != 0) {
            unlink((settings.path + ".new").c_str());
            error = settings.path + ": cannot be replaced: " + std::strerror(failed);
            return nullptr;
        }
        opened = std::move(converted.file);
    }
    auto file = std::make_unique<File>(std::move(opened));
    file->findings = findings;
    const int failed = file->Resume(settings);
    if (failed != 0) {
        error = settings.path + ": cannot be read: " + std::strerror(failed);
        return nullptr;
    }
    return std::unique_ptr<HistoryWriter>(new HistoryWriter(std::move(file)));
}

// Sealed blocks are taken as they are, only their columns refer to the definitions here; the rows
// of slots are appended. The newest come last, so they are what stays.
int HistoryWriter::File::Convert(const HistoryFile& old) {
    const HistoryDefinitions from(old.Bytes(kDefinitions));
    for (uint32_t log = 0; log < kLogs; ++log) {
        const AreaPlace& place = old.Head().areas[log];
        std::vector<SlotRows> slots;
        std::vector<BlockRef> blocks;
        const int failed = ReadLog(old.Descriptor(), place, log, blocks, slots);
        if (failed != 0) return failed;
        for (const BlockRef& block : blocks) ConvertBlock(old, block, from, log);
        for (const SlotRows& slot : slots) ConvertSlot(slot, from, log);
    }
    for (const StoredMark& stored : ParseMarks(old.Bytes(kMarks))) {
        marks.Append(stored.boot, stored.mark);
    }
    for (const StoredMark& stored : ParseMarks(old.Bytes(kProcessNotes))) {
        processNotes.Append(stored.boot, stored.mark);
    }
    return 0;
}

bool HistoryWriter::File::Translate(const HistoryDefinitions& from, ColumnId& id, uint16_t& tag) {
    if (SeriesOf(id) == kNoSeries) return true;
    const auto definition = from.Find(SeriesOf(id), tag);
    const uint32_t place = definition ? definitions.Place(definition->info) : kNoSeries;
    if (place == kNoSeries) return false;
    id = MakeColumn(place, IsReal(id), PartOf(id));
    tag = definitions.Tag(place);
    return true;
}

void HistoryWriter::File::ConvertBlock(const HistoryFile& old, const BlockRef& block,
                                       const HistoryDefinitions& from, uint32_t log) {
    std::vector<DirectoryEntry> entries;
    if (ReadDirectory(old.Descriptor(), block, entries) != BlockState::kSound) return;
    const std::span<const uint8_t> bytes =
        old.Bytes(log).subspan(block.offset - old.Head().areas[log].offset, block.head.size);
    std::vector<DirectoryEntry> kept;
    std::vector<uint8_t> columns;
    for (DirectoryEntry& entry : entries) {
        if (!Translate(from, entry.id, entry.tag)) continue;
        const auto column = bytes.subspan(entry.offset, entry.size);
        columns.insert(columns.end(), column.begin(), column.end());
        kept.push_back(entry);
    }
    logs[log].Adopt(block.head, kept, columns);
}

void HistoryWriter::File::ConvertSlot(const SlotRows& slot, const HistoryDefinitions& from,
                                      uint32_t log) {
    SlotRows other = slot;
    for (RowColumn& column : other.columns) {
        // What has no definition stays where no block looks for it.
        if (!Translate(from, column.id, column.tag)) column.id = MakeColumn(kNoSeries, false, 7);
    }
    logs[log].Adopt(other);
}

HistoryWriter::HistoryWriter(std::unique_ptr<File> file) : m_file(std::move(file)) {}
HistoryWriter::~HistoryWriter() = default;
const std::string& HistoryWriter::Findings() const {
    return m_file->findings;
}

void HistoryWriter::Append(const SampleTime& time, const SeriesTable& table) {
    File& file = *m_file;
    if (file.generation != table.Generation()) file.Learn(table);
    file.minutes.Begin(file.boot, time);
    if (file.isHourOver) file.Trim(table);
    BlockLog& log = file.logs[kSamples];
    bool isDone = false;
    while (!isDone) {
        file.AddColumns(table);
        file.cells.assign(log.Columns(), {});
        for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
            if (!table.HasValue(i) || file.known[i].place == kNoSeries) continue;
            file.cells[file.known[i].column] = {table.Value(i), true};
        }
        isDone = log.Append(time, file.cells);
    }
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        if (table.HasValue(i) && file.known[i].minutes != kNoNumber) {
            file.minutes.Set(file.known[i].minutes, table.Value(i));
        }
    }
}

std::string HistoryWriter::Losses(const SeriesTable& table) const {
    uint64_t rows = 0;
    for (const BlockLog& log : m_file->logs) rows += log.Lost();
    size_t series = 0;
    for (SeriesTable::Index i = 0; i < m_file->known.size(); ++i) {
        if (table.IsUsed(i) && m_file->known[i].place == kNoSeries) ++series;
    }
    std::string losses;
    if (rows > 0) losses = std::to_string(rows) + " rows";
    if (series > 0) {
        losses += (losses.empty() ? "" : " and ") + std::to_string(series) + " series";
    }
    return losses;
}

void HistoryWriter::Mark(const ::Mark& mark) {
    HistoryMarks& area = mark.kind == MarkKind::kProcesses ? m_file->processNotes : m_file->marks;
    area.Append(m_file->boot, mark);
}

int HistoryWriter::Sync() {
    return fdatasync(m_file->file->Descriptor()) == 0 ? 0 : errno;
}
