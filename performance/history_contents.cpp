#include "performance/history_contents.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/file_io.h"
#include "performance/history_definitions.h"

namespace {

constexpr std::array<const char*, kLogs> kLogNames = {"samples", "minutes", "hours"};

std::string TimeText(int64_t wall) {
    const time_t seconds = wall / 1'000'000'000;
    struct tm broken {};
    std::array<char, 32> text{};
    if (gmtime_r(&seconds, &broken) == nullptr) return "?";
    (void)strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &broken);
    return text.data();
}

}  // namespace

void HistoryContents::AddProblem(const std::string& problem) {
    const std::string line = m_path + ": " + problem;
    if (std::find(m_problems.begin(), m_problems.end(), line) == m_problems.end()) {
        m_problems.push_back(line);
    }
}

bool HistoryContents::Fail(int number) {
    m_error = m_path + ": " + std::strerror(number);
    return false;
}

// Again where another file is in its place, as after a change of its size.
bool HistoryContents::Reopen() {
    struct stat here {};
    struct stat there {};
    const bool isSame = m_fd.IsOpen() && fstat(m_fd.Get(), &here) == 0 &&
                        stat(m_path.c_str(), &there) == 0 && here.st_ino == there.st_ino &&
                        here.st_dev == there.st_dev;
    if (isSame) return true;
    UniqueFd opened = OpenRegularFile(m_path.c_str(), O_RDONLY);
    if (!opened.IsOpen()) return Fail(errno);
    m_fd = std::move(opened);
    m_places.clear();
    m_logs = {};
    return true;
}

bool HistoryContents::LoadHead() {
    const ReadResult got = ReadFullyAt(m_fd.Get(), &m_head, sizeof m_head, 0);
    if (got.error != 0) return Fail(got.error);
    m_error = got.count < sizeof m_head ? "too short for a history" : CheckFileHead(m_head);
    if (!m_error.empty()) {
        m_error = m_path + ": " + m_error;
        return false;
    }
    m_host = FixedText(m_head.host);
    struct stat status {};
    if (fstat(m_fd.Get(), &status) != 0) return Fail(errno);
    if (static_cast<uint64_t>(status.st_size) < m_head.size) {
        m_error = m_path + ": the file is cut: it has " + std::to_string(status.st_size) + " of " +
                  std::to_string(m_head.size) + " bytes";
    }
    return true;
}

int HistoryContents::ReadArea(Area area, std::vector<uint8_t>& bytes) const {
    struct stat status {};
    if (fstat(m_fd.Get(), &status) != 0) return errno;
    const AreaPlace& place = m_head.areas[area];
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    const uint64_t size =
        std::min(place.size, fileSize > place.offset ? fileSize - place.offset : 0);
    // Records begin at the area's start: where there are none nothing was ever written.
    bytes.resize(std::min<uint64_t>(size, kPage));
    const auto read = [&](size_t from) {
        const ReadResult got = ReadFullyAt(m_fd.Get(), bytes.data() + from, bytes.size() - from,
                                           static_cast<off_t>(place.offset + from));
        bytes.resize(from + got.count);
        return got.error;
    };
    const int failed = read(0);
    const bool isUsed =
        std::any_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte != 0; });
    if (failed != 0 || bytes.size() < kPage || !isUsed) return failed;
    bytes.resize(size);
    return read(kPage);
}

// What begins at this place; how many units it has.
uint32_t HistoryContents::TakeDefinition(size_t at, std::span<const uint8_t> bytes) {
    auto definition = ParseDefinition(bytes);
    if (!definition) return 1;
    if (m_places.size() <= at) m_places.resize(at + 1);
    Place& place = m_places[at];
    if (!place.isThere || place.tag != definition->tag) {
        place = {true, definition->tag, -1, std::move(definition->info)};
    }
    return definition->units;
}

// In parts: most of the area is empty, and fresh memory costs more than reading it.
bool HistoryContents::LoadDefinitions() {
    constexpr size_t kPart = 512;  // units
    const AreaPlace& area = m_head.areas[kDefinitions];
    std::vector<uint8_t> bytes((kPart + kMostDefinitionUnits) * kDefinitionUnit);
    for (size_t at = 0; at < area.size / kDefinitionUnit;) {
        const size_t begin = at;
        const uint64_t offset = begin * kDefinitionUnit;
        const ReadResult got =
            ReadFullyAt(m_fd.Get(), bytes.data(), std::min(bytes.size(), area.size - offset),
                        static_cast<off_t>(area.offset + offset));
        if (got.error != 0) return Fail(got.error);
        const size_t end = begin + std::min(got.count / kDefinitionUnit, kPart);
        if (begin == end) break;
        const std::span<const uint8_t> read(bytes.data(), got.count);
        while (at < end) at += TakeDefinition(at, read.subspan((at - begin) * kDefinitionUnit));
    }
    m_unknown =
        static_cast<size_t>(std::count_if(m_places.begin(), m_places.end(), [](const Place& place) {
            return place.isThere && place.series < 0;
        }));
    return true;
}

void HistoryContents::Note(ColumnId id, uint16_t tag) {
    const uint32_t at = SeriesOf(id);
    if (at >= m_places.size() || !m_places[at].isThere || m_places[at].tag != tag) return;
    Place& place = m_places[at];
    if (place.series >= 0) return;
    --m_unknown;
    std::vector<uint32_t>& known = m_numbers[SeriesId(place.info)];
    for (const uint32_t number : known) {
        if (IsSameSeries(m_series[number], place.info)) place.series = static_cast<int32_t>(number);
    }
    if (place.series >= 0) return;
    place.series = static_cast<int32_t>(m_series.size());
    known.push_back(static_cast<uint32_t>(m_series.size()));
    m_series.push_back(place.info);
}

int32_t HistoryContents::SeriesAt(ColumnId id, uint16_t tag) const {
    const uint32_t at = SeriesOf(id);
    return at < m_places.size() && m_places[at].tag == tag ? m_places[at].series : -1;
}

void HistoryContents::ListParts(uint32_t number) {
    HistoryLog& log = m_logs[number];
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
        const HistoryPart& before = log.parts[i - 1];
        if (log.parts[i].sequence == before.sequence + 1) continue;
        AddProblem(std::string(kLogNames[number]) + " are missing between " +
                   TimeText(before.mostWall) + " and " + TimeText(log.parts[i].leastWall));
    }
}

// The newest first: as a rule they have every series that is defined.
bool HistoryContents::ListSeries(uint32_t number) {
    HistoryLog& log = m_logs[number];
    std::vector<DirectoryEntry> entries;
    const uint64_t listed = log.listed;
    for (size_t i = log.parts.size(); i-- > 0 && m_unknown > 0;) {
        const HistoryPart& part = log.parts[i];
        if (part.slot != nullptr) {
            for (const RowColumn& column : part.slot->columns) Note(column.id, column.tag);
            continue;
        }
        if (part.sequence <= listed) break;
        log.listed = std::max(log.listed, part.sequence);
        const BlockState state = ReadDirectory(m_fd.Get(), *part.block, entries);
        if (state == BlockState::kUnread) return Fail(errno);
        if (state == BlockState::kDamaged) AddDamage(number, part);
        for (const DirectoryEntry& entry : entries) Note(entry.id, entry.tag);
    }
    return true;
}

bool HistoryContents::LoadLog(uint32_t number) {
    HistoryLog& log = m_logs[number];
    log.slots.clear();
    log.blocks.clear();
    const int failed = ReadLog(m_fd.Get(), m_head.areas[number], number, log.blocks, log.slots);
    if (failed != 0) return Fail(failed);
    ListParts(number);
    return true;
}

void HistoryContents::FindNewest() {
    for (const uint32_t number : {kHours, kMinutes, kSamples}) {
        if (m_logs[number].parts.empty()) continue;
        const HistoryPart& part = m_logs[number].parts.back();
        m_bootId =
            FixedText(part.slot != nullptr ? part.slot->head.bootId : part.block->head.bootId);
        m_period = part.slot != nullptr ? part.slot->head.period : part.block->head.period;
    }
}

bool HistoryContents::Load() {
    m_problems.clear();
    if (!Reopen() || !LoadHead()) return false;
    // The samples last, so that no minute is there before its samples are.
    for (const uint32_t number : {kHours, kMinutes, kSamples}) {
        if (!LoadLog(number)) return false;
    }
    // After the blocks that refer to them.
    if (!LoadDefinitions()) return false;
    for (uint32_t number = 0; number < kLogs; ++number) {
        if (!ListSeries(number)) return false;
    }
    FindNewest();
    return true;
}

void HistoryContents::AddDamage(uint32_t log, const HistoryPart& part) {
    AddProblem(std::string(kLogNames[log]) + " from " + TimeText(part.leastWall) + " to " +
               TimeText(part.mostWall) + " are damaged");
}

bool HistoryContents::ReadRows(uint32_t log, const HistoryPart& part, const ColumnFilter& isWanted,
                               BlockRows& rows) {
    if (part.slot != nullptr) {
        ReadSlot(*part.slot, isWanted, rows);
        return true;
    }
    const BlockState state = ReadBlock(m_fd.Get(), *part.block, isWanted, rows);
    if (state == BlockState::kUnread) return Fail(errno);
    if (state == BlockState::kDamaged) AddDamage(log, part);
    return state != BlockState::kGone;
}

KeySpans HistoryContents::Covered(uint32_t number) const {
    KeySpans covered;
    uint64_t before = 0;
    for (const HistoryPart& part : m_logs[number].parts) {
        // The times of a row are those of its last sample.
        HistoryKey first = part.first;
        first.monotonic -= std::min(StepOf(number), first.monotonic);
        covered.Add(first, part.last, part.sequence == before + 1);
        before = part.sequence;
    }
    return covered;
}

void HistoryContents::TakeMarks(Area area, HistorySpan span, std::vector<StoredMark>& marks) {
    std::vector<uint8_t> bytes;
    const int failed = ReadArea(area, bytes);
    if (failed != 0) (void)Fail(failed);
    for (StoredMark& stored : ParseMarks(bytes)) {
        const int64_t wall = stored.mark.time.wall;
        if (wall >= span.from && wall < span.to) marks.push_back(std::move(stored));
    }
}
