#include "trace_reader/describe.h"

#include "trace_reader/prefix.h"
#include "trace_reader/writer.h"

namespace {

const char* KindName(const SourceFacts& facts) {
    switch (facts.kind) {
        case FileKind::kEmptyFile:
            return "empty";
        case FileKind::kForeignFile:
            return "not a trace file";
        case FileKind::kLogFile:
            return "log";
        case FileKind::kRingFile:
            break;
    }
    return facts.isCompressed ? "compressed ring" : "ring";
}

std::string Bytes(uint64_t count, const char* what) {
    return count == 0 ? ""
                      : ", " + std::to_string(count) + (count == 1 ? " byte " : " bytes ") + what;
}

std::string Span(const SourceFacts& facts) {
    if (facts.records == 0) return ", no records";
    return ", " + std::to_string(facts.records) +
           (facts.records == 1 ? " record read, " : " records read, ") +
           FormatTime(facts.firstTime).data() + " to " + FormatTime(facts.lastTime).data();
}

std::string Cycles(const SourceFacts& facts) {
    if (facts.cycle == 0) return ", not wrapped";
    return facts.kind == FileKind::kRingFile
               ? ", wrapped"
               : ", wrapped " + std::to_string(facts.cycle) + " times";
}

std::string Writer(const SourceFacts& facts) {
    const std::string process = "process " + std::to_string(facts.writer);
    if (facts.isWritten) return ", " + process + " writes it";
    if (!HidesFiles(facts.writer)) return ", " + process + " no longer writes it";
    return ", whether " + process + " still writes it cannot be seen";
}

}  // namespace

std::string Describe(const SourceFacts& facts) {
    std::string text = KindName(facts);
    if (facts.kind == FileKind::kLogFile || facts.kind == FileKind::kRingFile) {
        text += Span(facts) + Cycles(facts);
        if (facts.clockBack > 0) {
            text += ", clock went back " + std::to_string(facts.clockBack) + " times";
        }
        text += Bytes(facts.overwritten, "of older records cut");
        text += Bytes(facts.foreign, "are no records");
        text += Bytes(facts.lost, "overwritten while they were read");
        if (facts.hasUncertainLines)
            text += ", lines at the end of a cycle may be of older records";
        if (facts.writer != 0 && !facts.isCompressed) {
            text += Writer(facts);
        }
    }
    if (facts.problem.empty() || facts.kind == FileKind::kForeignFile) return text;
    return facts.kind == FileKind::kEmptyFile && facts.size == 0 ? facts.problem
                                                                 : text + "; " + facts.problem;
}
