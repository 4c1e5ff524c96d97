#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "trace_reader/layout.h"
#include "trace_reader/log_boundary.h"
#include "trace_reader/prefix.h"
#include "trace_reader/record_stream.h"
#include "trace_reader/writer.h"

namespace {

bool TakeNumber(std::string_view& text, std::string_view label, uint64_t& number) {
    const size_t found = text.find(label);
    if (found == text.npos) return false;
    text.remove_prefix(found + label.size());
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
}

std::optional<WrapLine> ParseWrap(std::string_view text) {
    WrapLine wrap;
    uint64_t cycle = 0;
    if (!TakeNumber(text, "Cycle=", cycle) || !TakeNumber(text, "CntInitEnd=", wrap.start) ||
        !TakeNumber(text, "(MaxCnt=", wrap.limit)) {
        return std::nullopt;
    }
    wrap.cycle = static_cast<uint32_t>(cycle);
    return wrap;
}

// What a first look at all of a log tells.
struct FirstLook {
    // The last wrap line. It stands where its cycle begins, which tells it from a copy in a text.
    WrapLine wrap;
    // Whether texts have several lines. A log of others has two records with pieces behind them at
    // the most: its newest, and the last of the file.
    bool hasLongTexts = false;
    bool areMostLong = false;
};

FirstLook LookAtAll(const TraceFile& file, uint64_t size) {
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, false});
    FirstLook look;
    int texts = 0, longTexts = 0;
    bool isLong = false;
    for (TraceRecord record; stream.Next(record);) {
        isLong = record.kind != RecordKind::kWrap && record.line.find('\n') != record.line.npos;
        ++texts;
        longTexts += isLong ? 1 : 0;
        if (record.kind != RecordKind::kWrap) continue;
        const auto wrap = ParseWrap(record.text);
        if (wrap && wrap->start == stream.Offset() && wrap->cycle > look.wrap.cycle) {
            look.wrap = *wrap;
        }
    }
    look.hasLongTexts = longTexts - (isLong ? 1 : 0) > 1;
    look.areMostLong = look.hasLongTexts && longTexts > texts / 2;
    return look;
}

// The file is never shortened: behind the record that passed the limit, pieces of such records of
// earlier cycles may be left. Only where the limit is in a further line of a text, or most texts
// have such lines, they are taken for lines of the record.
uint64_t FindOldEnd(const TraceFile& file, const FirstLook& look, uint64_t size) {
    if (look.wrap.cycle < 2 || look.areMostLong) return size;
    // A limit within the start-up part makes every record pass it.
    const uint64_t wrapEnd = file.Find("\n", look.wrap.start, size);
    if (wrapEnd == TraceFile::kNowhere) return size;
    const uint64_t place = std::max(look.wrap.limit, wrapEnd + 1);
    const uint64_t before = file.FindLast("\n", 0, std::min(place, size));
    const std::string line = file.Read(before + 1, PrefixParser::kHeadLength);
    const bool isFirstLine = PrefixParser().ParseHead(line.data(), line.size()).isThere != 0;
    if (look.hasLongTexts && !isFirstLine) return size;
    const uint64_t feed = file.Find("\n", place, size);
    return feed == TraceFile::kNowhere ? size : feed + 1;
}

}  // namespace

static void PutParts(const LogPlace& place, Layout& layout) {
    const auto put = [&layout](uint64_t begin, uint64_t end,
                               RecordKind kind = RecordKind::kRecord) {
        if (begin < end) layout.segments.push_back({begin, end, kind, false});
    };
    layout.newest = std::min(place.newest, layout.oldEnd);
    layout.certain = std::min(place.certain, layout.newest);
    layout.overwritten =
        std::min(place.old, layout.oldEnd) - layout.newest + (layout.size - layout.oldEnd);
    put(0, layout.start);
    put(layout.newest, place.old, RecordKind::kPiece);
    put(place.old, layout.oldEnd);
    put(layout.oldEnd, layout.size, RecordKind::kPiece);
    put(layout.start, layout.newest);
}

std::optional<WrapLine> ReadWrapLine(const TraceFile& file, uint64_t offset) {
    constexpr uint64_t kLongest = 512;
    RecordStream stream(file);
    stream.Start({offset, offset + kLongest, RecordKind::kRecord, false});
    TraceRecord record;
    if (!stream.Next(record) || record.kind != RecordKind::kWrap) return std::nullopt;
    const auto wrap = ParseWrap(record.text);
    return wrap && wrap->start == offset ? wrap : std::nullopt;
}

// Where its writer is, which nothing in the file tells as surely.
static std::optional<LogPlace> FindPlace(const TraceFile& file, std::optional<uint64_t> position,
                                         const Layout& layout) {
    const uint64_t newest = position ? *position : WritePosition().Find(file);
    if (newest <= layout.start || newest > layout.oldEnd) return std::nullopt;
    const auto old = FindRecord(file, newest, layout.oldEnd);
    return LogPlace{newest, old ? old->offset : layout.oldEnd, newest};
}

static LogPlace GuessPlace(const TraceFile& file, const FirstLook& look, const Layout& layout) {
    LogBoundary boundary(look.hasLongTexts, look.areMostLong);
    RecordStream stream(file);
    stream.Start({layout.start, layout.oldEnd, RecordKind::kRecord, false});
    for (TraceRecord record; stream.Next(record);) boundary.Add(record, stream.Offset());
    return boundary.End(layout.oldEnd);
}

void ExamineLog(const TraceFile& file, std::optional<uint64_t> position, Layout& layout) {
    layout.kind = FileKind::kLogFile;
    const FirstLook look = LookAtAll(file, layout.size);
    layout.cycle = look.wrap.cycle;
    layout.start = look.wrap.start;
    layout.oldEnd = layout.size;
    if (layout.cycle == 0) {
        const uint64_t feed = file.FindLast("\n", 0, layout.size);
        layout.newest = layout.certain = feed == TraceFile::kNowhere ? 0 : feed + 1;
        layout.segments = {{0, layout.size, RecordKind::kRecord, false}};
        return;
    }
    layout.oldEnd = FindOldEnd(file, look, layout.size);
    layout.hasUncertainLines = look.hasLongTexts;
    const auto place = FindPlace(file, position, layout);
    PutParts(place ? *place : GuessPlace(file, look, layout), layout);
}
