#include "kemdctl/trace/last_run_facts.h"

#include <algorithm>

#include "kemdctl/trace/run_marks.h"

namespace {

// The number after a text that a record begins with; empty when there is none.
std::string NumberBehind(std::string_view text, std::string_view label) {
    if (!text.starts_with(label)) return {};
    text.remove_prefix(label.size());
    const size_t end = text.find_first_not_of("-0123456789");
    return std::string(text.substr(0, end));
}

}  // namespace

void LastRun::TakeMark(const TraceRecord& record) {
    const auto mark = ParseRunMark(record);
    if (!mark) return;
    switch (mark->kind) {
        case RunMark::Kind::kRunBegin:
            *this = LastRun();
            hasBegin = true;
            break;
        case RunMark::Kind::kInitialised:
            isInitialised = true;
            break;
        case RunMark::Kind::kCallBegin:
            openCall = Call{std::string(mark->name), record.time};
            break;
        case RunMark::Kind::kCallEnd:
            openCall.reset();
            break;
        case RunMark::Kind::kExit:
            hasExit = true;
            break;
        case RunMark::Kind::kFatal:
            fatal = record.text;
            break;
    }
}

void LastRun::TakeModule(const TraceRecord& record) {
    constexpr size_t kMost = 1000;
    const auto note = ParseModuleNote(record);
    if (!note) return;
    const std::string name(note->name);
    if (note->state.ends_with("ing")) {
        openModule = Call{std::string(note->state) + " module " + name, record.time};
    } else {
        openModule.reset();
    }
    if (modules.size() < kMost || modules.count(name) > 0) modules[name] = note->state;
}

void LastRun::TakeStop(std::string_view text) {
    const std::string caught = NumberBehind(text, "KEMD-MAIN: Signal ");
    if (!caught.empty() && text.find(" caught -> processing") != text.npos) signal = caught;
    const std::string level = NumberBehind(text, "KEMD-MAIN: Current RunLevel = ");
    if (!level.empty()) runLevel = level;
}

void LastRun::Take(const TraceRecord& record) {
    TakeMark(record);
    TakeModule(record);
    if (record.tag == "kemd") TakeStop(record.text);
    if (records == 0) begin = record.time;
    end = record.time;
    ++records;
    constexpr size_t kLongest = 2048;
    TraceRecord kept = record;
    kept.line = record.line.substr(0, kLongest);
    kept.text.remove_suffix(std::min(record.line.size() - kept.line.size(), kept.text.size()));
    lastRecords.emplace_back().Keep(kept);
    if (lastRecords.size() > kLastRecords) lastRecords.pop_front();
}

LastRun::End LastRun::HowEnded(Writing writing) const {
    if (hasExit) return End::kStopped;
    if (writing == Writing::kYes) return End::kRunning;
    if (writing == Writing::kUnseen && fatal.empty()) return End::kUnknown;
    const bool isAtStart = hasBegin && !isInitialised;
    if (isAtStart) return End::kDiedAtStart;
    return fatal.empty() ? End::kKilled : End::kDied;
}

std::string DescribeEnd(const LastRun& run, LastRun::End end) {
    using End = LastRun::End;
    const std::string why = run.fatal.empty() ? "" : ": " + run.fatal;
    switch (end) {
        case End::kRunning:
            return run.hasBegin && !run.isInitialised ? "is starting" : "is running";
        case End::kStopped:
            break;
        case End::kKilled:
            return "killed: no exit message, and no process writes the files";
        case End::kDiedAtStart:
            return "died at start" +
                   (why.empty() ? ": it never said that it was initialised" : why);
        case End::kDied:
            return "died" + why;
        case End::kUnknown:
            return "unknown: no exit message, and whether a process still writes the files cannot "
                   "be seen";
    }
    std::string text = "stopped in order";
    if (!run.signal.empty()) text += ", by signal " + run.signal;
    if (run.runLevel == "0") text += ", the system went down";
    if (run.runLevel == "6") text += ", the system rebooted";
    if (run.runLevel == "5") text += ", a plain stop";
    return text;
}
