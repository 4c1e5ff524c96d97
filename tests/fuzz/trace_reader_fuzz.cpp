// Reads any bytes as a trace file, in each of the ways there are: whatever is in them, the records
// come from the file and lie in it one after the other, and all that is in it can be shown.
#include "kemdctl/trace/show_sink.h"
#include "tests/fuzz/fuzz.h"
#include "tests/kemdctl/json_check.h"
#include "trace_reader/trace_merge.h"
#include "trace_reader/trace_source.h"

namespace {

bool IsWithin(std::string_view part, std::string_view whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

std::string ReadOneByOne(TraceSource& source, size_t size) {
    std::string text;
    for (TraceRecord record; source.Next(record);) {
        Require(IsWithin(record.text, record.line) && IsWithin(record.tag, record.line),
                "a part outside of its record");
        Require(record.kind == RecordKind::kRecord, "a hidden record");
        text += std::string(record.line) + "\n";
    }
    Require(text.size() <= size + 2, "more than the file has");
    return text;
}

template <typename Records>
std::string ReadBlocks(Records& records) {
    std::string text;
    for (TraceRecord record; records.Next(record);) {
        text += std::string(record.line) + "\n";
        for (RecordBlock run; records.NextBlock(run);) text += std::string(run.lines) + "\n";
    }
    return text;
}

void ReadTwo(const std::string& one, const std::string& other) {
    TraceMerge merge;
    merge.ShowAll(one.size() % 2 == 1);
    merge.Add(one);
    merge.Add(other);
    uint64_t count = 0, counted = 0;
    std::string text;
    for (TraceRecord record; merge.Next(record);) {
        count += record.kind == RecordKind::kRecord;
        text += std::string(record.line) + "\n";
    }
    for (const auto& source : merge.Sources()) counted += source->Facts().records;
    Require(count <= counted, "records from nowhere");
    TraceMerge again;
    again.ShowAll(one.size() % 2 == 1);
    again.Add(one);
    again.Add(other);
    Require(ReadBlocks(again) == text, "another order in runs");
}

// All that --raw shows, in one form.
std::string Print(const std::string& path, const TraceOptions& options) {
    TraceMerge merge;
    merge.ShowAll(true);
    merge.Add(path);
    Output output(options);
    const auto printer = MakePrinter(options, output);
    printer->Begin(merge);
    const Printer::Delta delta = 1;
    std::string shown;
    for (TraceRecord record; merge.Next(record);) {
        printer->Print(record, &delta);
        printer->PrintGap(1);
        shown += std::exchange(output.Text(), {});
    }
    return shown;
}

void PrintInAllForms(const std::string& path) {
    TraceOptions options;
    options.mayPage = false;
    for (const Form form : {Form::kFull, Form::kShort, Form::kJson, Form::kCsv}) {
        for (const ColorMode color : {ColorMode::kNever, ColorMode::kAlways}) {
            options.form = form;
            options.color = color;
            const std::string shown = Print(path, options);
            if (form != Form::kJson) continue;
            for (std::string_view rest = shown; !rest.empty();) {
                const size_t end = rest.find('\n');
                Require(JsonCheck::IsValid(rest.substr(0, end)), "no JSON");
                rest.remove_prefix(end + 1);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (bytes.starts_with("\x1f\x8b")) return 0;  // that would test gzip
    const size_t middle = std::min(bytes.find('\0'), size);
    static const MemoryFile file, second;
    file.Fill(bytes);
    TraceSource source(file.Path(), 0);
    Require(source.Open(), "opening");
    const std::string text = ReadOneByOne(source, size);
    source.Rewind();
    Require(ReadBlocks(source) == text, "runs that differ from their records");
    source.Select(1794773091000, INT64_MAX);
    Require(ReadOneByOne(source, size).size() <= text.size(), "seeking found more");
    PrintInAllForms(file.Path());
    second.Fill(bytes.substr(middle));
    file.Fill(bytes.substr(0, middle));
    (void)source.Advance();
    (void)ReadOneByOne(source, size);
    ReadTwo(file.Path(), second.Path());
    return 0;
}
