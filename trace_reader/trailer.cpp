#include "trace_reader/trailer.h"

#include <algorithm>
#include <optional>
#include <thread>

#include "trace_reader/record_stream.h"

namespace {

constexpr uint64_t kNowhere = TraceFile::kNowhere;
constexpr uint64_t kNear = uint64_t{1} << 18;

// The time of the record that ends at a place.
std::optional<int64_t> TimeBefore(const TraceFile& file, uint64_t begin, uint64_t end) {
    for (uint64_t length = uint64_t{1} << 12;; length *= 16) {
        const uint64_t from = end - std::min(length, end - begin);
        RecordStream stream(file);
        stream.Start({from, end, RecordKind::kRecord, true});
        std::optional<int64_t> time;
        for (TraceRecord record; stream.Next(record);) time = record.time;
        if (time || from == begin) return time;
    }
}

// A header that reaches into the records ends in a trailer, too.
bool IsBehindHeader(const TraceFile& file, uint64_t at) {
    constexpr std::string_view kHeaderEnd = "# End of header.\n";
    return at >= kHeaderEnd.size() &&
           file.Read(at - kHeaderEnd.size(), kHeaderEnd.size()) == kHeaderEnd;
}

enum Rank { kNone, kNewerBehind, kSameTimeBehind, kOlderBehind };

// What a line at `at` is, by the first record behind it.
Rank RankOf(const TraceFile& file, uint64_t record, uint64_t at,
            const std::optional<RecordPlace>& behind) {
    if (IsBehindHeader(file, at)) return kNewerBehind;
    if (!behind || behind->kind == RecordKind::kFill) return kOlderBehind;
    const auto time = TimeBefore(file, std::min(record, at), at);
    if (!time || behind->time > *time) return kNewerBehind;
    return behind->time < *time ? kOlderBehind : kSameTimeBehind;
}

struct Ranked {
    uint64_t offset = kNowhere;
    Rank rank = kNone;
    bool isOneOfMany = false;
};

// The best of those that begin in [from, to).
Ranked FindBest(const TraceFile& file, uint64_t start, uint64_t from, uint64_t to, uint64_t end) {
    constexpr int kMost = 10'000;  // of them in texts: no file may keep its reader busy for long
    const uint64_t last = std::min(to + kTrailerLength, end);
    Ranked best;
    uint64_t record = start;  // begins here, or further on
    for (int i = 0; i < kMost; ++i) {
        // The line feed in front of it belongs to the record before.
        const uint64_t found = file.Find(kTrailerLine, std::max<uint64_t>(from, 1) - 1, last);
        if (found == kNowhere) break;
        const auto behind = FindRecord(file, found + kTrailerLine.size(), end);
        // Of several in one text the last. A writer may have overwritten all of them by now.
        from = behind ? behind->offset : end;
        const uint64_t line = file.FindLast(kTrailerLine, found, std::min(from, last));
        const uint64_t at = (line == kNowhere ? found : line) + 1;
        const Rank rank = RankOf(file, record, at, behind);
        if (rank >= best.rank) best = {at, rank, at != found + 1};
        if (rank == kOlderBehind) break;
        if (behind) record = behind->offset;
    }
    return best;
}

Trailer Judge(const Ranked& best) {
    return {best.offset, best.rank >= kSameTimeBehind, best.isOneOfMany};
}

}  // namespace

void NarrowNewest(const TraceFile& file, uint64_t& begin, uint64_t& end) {
    const auto first = FindRecord(file, begin, std::min(begin + kNear, end));
    while (first && end - begin > 2 * kNear) {
        const uint64_t middle = begin + (end - begin) / 2;
        const auto place = FindRecord(file, middle, std::min(middle + kNear, end));
        if (!place) return;
        if (place->kind == RecordKind::kFill || place->time < first->time) {
            end = std::min(place->offset + kTrailerLength, end);
        } else {
            begin = place->offset;
        }
    }
}

Trailer FindTrailer(const TraceFile& file, uint64_t start, uint64_t end) {
    uint64_t from = start, to = end;
    NarrowNewest(file, from, to);
    const bool isNarrow = from > start || to < end;
    const Ranked near = FindBest(file, start, from, to, end);
    if (near.rank == kOlderBehind || !isNarrow) return Judge(near);
    return Judge(FindBest(file, start, start, end, end));
}

Trailer FindTrailerFrom(const TraceFile& file, uint64_t start, uint64_t from, uint64_t end) {
    return Judge(FindBest(file, start, from, end, end));
}

bool Patience::Wait() const {
    if (std::chrono::steady_clock::now() >= m_end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    return true;
}
