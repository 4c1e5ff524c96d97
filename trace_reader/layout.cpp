#include "trace_reader/layout.h"

#include <algorithm>
#include <charconv>

#include "trace_reader/prefix.h"
#include "trace_reader/record_stream.h"
#include "trace_reader/trailer.h"

namespace {

constexpr uint64_t kNowhere = TraceFile::kNowhere;
constexpr uint64_t kAlignment = 1024;  // of the begin record
constexpr size_t kLongestPrefix = 128;
constexpr std::string_view kBeginText = "### Begin of RingBuffer. ###\n";

bool IsBegin(const char* bytes, size_t length) {
    PrefixParser parser;
    if (parser.ParseHead(bytes, length).isThere == 0) return false;
    TraceRecord record;
    record.line = {bytes, std::min(length, kLongestPrefix + kBeginText.size())};
    parser.ParseRest(record);
    return record.text.starts_with(kBeginText);
}

// The record that begins a ring; only it stands at such an offset.
uint64_t FindBegin(const TraceFile& file, uint64_t size) {
    constexpr uint64_t kBlock = uint64_t{1} << 20;
    for (uint64_t at = 0; at < size; at += kBlock) {
        const std::string block = file.Read(at, kBlock + kLongestPrefix + kBeginText.size());
        for (uint64_t i = 0; i < std::min<uint64_t>(block.size(), kBlock); i += kAlignment) {
            if (IsBegin(block.data() + i, block.size() - i)) return at + i;
        }
    }
    return kNowhere;
}

// What a file without any mark of a ring holds. A ring that is being made has none either while a
// line of its header is written, but it ends with pre-fill.
FileKind FindKind(const TraceFile& file, uint64_t size) {
    constexpr std::string_view kFillEnd = "____________________\n";
    const uint64_t length = std::min<uint64_t>(size, kFillEnd.size());
    if (file.Read(size - length, length) == kFillEnd) return FileKind::kRingFile;
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, true});
    FileKind kind = FileKind::kForeignFile;
    for (TraceRecord record; stream.Next(record);) {
        if (record.kind == RecordKind::kRecord || record.kind == RecordKind::kWrap) {
            return FileKind::kLogFile;
        }
        if (record.kind == RecordKind::kFill) kind = FileKind::kRingFile;
    }
    return kind;
}

// A ring begins with its header, if it is not damaged there.
bool BeginsAsLog(const TraceFile& file, uint64_t size) {
    RecordStream stream(file);
    stream.Start({0, size, RecordKind::kRecord, false});
    TraceRecord record;
    return stream.Next(record) && record.kind == RecordKind::kRecord &&
           record.text != "Orvana Environment:" && !record.text.ends_with(" Command Line Options:");
}

}  // namespace

Layout ExamineFile(const TraceFile& file, std::optional<uint64_t> position) {
    Layout layout;
    layout.size = file.Size();
    if (layout.size == 0) return layout;
    const uint64_t begin = FindBegin(file, layout.size);
    // A ring that is being made has its whole size only when its records begin.
    if (begin != kNowhere) layout.size = file.Size();
    const bool isRing = begin != kNowhere || (file.Find(kTrailerLine, 0, layout.size) != kNowhere &&
                                              !BeginsAsLog(file, layout.size));
    if (isRing) {
        ExamineRing(file, begin, layout);
        return layout;
    }
    layout.kind = FindKind(file, layout.size);
    if (layout.kind == FileKind::kLogFile) {
        ExamineLog(file, position, layout);
        return layout;
    }
    const bool isUnused = layout.kind == FileKind::kRingFile;
    layout.segments = {{0, layout.size, isUnused ? RecordKind::kFill : RecordKind::kOther, false}};
    layout.problem = isUnused ? "nothing was written yet" : "no trace file";
    return layout;
}

int FindWriter(const TraceFile& file) {
    constexpr std::string_view kLabel = "Process PID                : ";
    constexpr size_t kMostHeader = size_t{1} << 20;
    const std::string text = file.Read(0, kMostHeader);
    const size_t found = text.find(kLabel);
    int id = 0;
    if (found == text.npos) return 0;
    const char* const number = text.data() + found + kLabel.size();
    std::from_chars(number, text.data() + text.size(), id);
    return id;
}
