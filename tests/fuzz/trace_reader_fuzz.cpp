// Reads any bytes as a trace file, in each of the ways there are: whatever is in them, the records
// come from the file, one after the other, and all that is in it can be shown.
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

// One by one or, where it can be, several at once.
template <typename Records>
std::string ReadAll(Records& records, bool inBlocks) {
    std::string text;
    for (TraceRecord record; records.Next(record);) {
        Require(IsWithin(record.text, record.line) && IsWithin(record.tag, record.line),
                "a part outside of its record");
        text += std::string(record.line) + "\n";
        for (RecordBlock block; inBlocks && records.NextBlock(block);)
            text += std::string(block.lines) + "\n";
    }
    return text;
}

void ReadTwo(const std::string& one, const std::string& other, bool showsAll) {
    TraceMerge merge, again;
    for (TraceMerge* each : {&merge, &again}) {
        each->ShowAll(showsAll);
        each->Add(one);
        each->Add(other);
    }
    Require(ReadAll(again, true) == ReadAll(merge, false), "another order in blocks");
}

// All that --raw shows, in one form.
void Print(const std::string& path, Form form, ColorMode color) {
    TraceOptions options;
    options.mayPage = false;
    options.form = form;
    options.color = color;
    TraceMerge merge;
    merge.ShowAll(true);
    merge.Add(path);
    Output output(options);
    const auto printer = MakePrinter(options, output);
    printer->Begin(merge);
    const Printer::Delta delta = 1;
    for (TraceRecord record; merge.Next(record);) {
        (void)std::exchange(output.Text(), {});
        printer->Print(record, &delta);
        std::string_view line = output.Text();
        if (form == Form::kJson && line.ends_with('\n')) line.remove_suffix(1);
        Require(form != Form::kJson || JsonCheck::IsValid(line), "no JSON");
        printer->PrintGap(1);
    }
    (void)std::exchange(output.Text(), {});
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
    const std::string text = ReadAll(source, false);
    Require(text.size() <= size + 2, "more than the file has");
    source.Rewind();
    Require(ReadAll(source, true) == text, "blocks that differ from their records");
    source.Select(1794773091000, INT64_MAX);
    Require(ReadAll(source, false).size() <= text.size(), "seeking found more");
    for (const Form form : {Form::kFull, Form::kShort, Form::kJson, Form::kCsv}) {
        for (const ColorMode color : {ColorMode::kNever, ColorMode::kAlways})
            Print(file.Path(), form, color);
    }
    second.Fill(bytes.substr(middle));
    file.Fill(bytes.substr(0, middle));
    (void)source.Advance();
    (void)ReadAll(source, false);
    ReadTwo(file.Path(), second.Path(), size % 2 == 1);
    return 0;
}
