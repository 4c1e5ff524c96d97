#include "kemdctl/performance/history.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "kemdctl/performance/format.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

bool g_hasReadFailed = false;

}  // namespace

bool HasReadFailed() {
    return g_hasReadFailed;
}

void CloseHistory::operator()(HistoryReader* reader) const {
    for (const std::string& problem : reader->Problems()) {
        Complain("note: %s", Printable(problem).c_str());  // it names the file
    }
    if (!reader->Error().empty()) {
        g_hasReadFailed = true;
        Complain("%s", Printable(reader->Error()).c_str());
    }
    delete reader;
}

History OpenHistory(const PerformanceOptions& options) {
    struct stat status = {};
    if (options.file == nullptr && stat(kHistoryPath, &status) != 0 && errno == ENOENT) {
        Complain(
            "there is no history %s: the module performance writes it while kemd runs; see "
            "kemdctl modules show performance, or name a file with --file",
            kHistoryPath);
        return nullptr;
    }
    std::string error;
    auto reader = HistoryReader::Open(options.Path(), error);
    if (!reader) {
        Complain("%s", Printable(error).c_str());
        return nullptr;
    }
    return History(reader.release());
}

std::optional<HistorySpan> ChooseSpan(const PerformanceOptions& options,
                                      const HistoryReader& reader, bool isAll) {
    constexpr int64_t kUsual = int64_t{600} * 1'000'000'000;
    const HistorySpan range = reader.Range();
    if (range.from >= range.to) {
        Complain("%s has no samples yet", Printable(options.Path()).c_str());
        return {};
    }
    HistorySpan span = {0, options.until ? *options.until + 1 : range.to};  // --until is inclusive
    span.to = std::min(span.to, range.to);
    span.from = options.since.value_or(isAll ? range.from : span.to - kUsual);
    span.from = std::max(span.from, range.from);
    if (span.from < span.to) return span;
    Complain("there are no samples of this time: the history goes from %s to %s",
             TimeText(range.from).c_str(), TimeText(range.to - 1).c_str());
    return {};
}

void ShowOrigin(ReportWriter& report, const PerformanceOptions& options,
                const HistoryReader& reader) {
    report.Text("host", reader.Host());
    report.Text("file", options.Path());
    if (options.file == nullptr) return;
    report.Line("history of " + Printable(reader.Host()) + ", " + Printable(options.file));
}

const char* MarkWord(MarkKind kind) {
    switch (kind) {
        case MarkKind::kStart:
            return "start";
        case MarkKind::kStop:
            return "stop";
        case MarkKind::kGap:
            return "gap";
        case MarkKind::kSuspend:
            return "suspend";
        case MarkKind::kClockStep:
            return "clock-step";
        case MarkKind::kReboot:
            return "reboot";
        case MarkKind::kAlarm:
            return "alarm";
        case MarkKind::kAlarmEnd:
            return "alarm-end";
        case MarkKind::kProcesses:
            return "processes";
    }
    return "unknown";
}

std::string MarkText(const Mark& mark) {
    const std::string text = mark.text.empty() ? "" : ": " + Printable(mark.text);
    const std::string span = SpanText(std::abs(mark.value));
    switch (mark.kind) {
        case MarkKind::kStart:
            return "the monitor began" + text;
        case MarkKind::kStop:
            return "the monitor ended in order" + text;
        case MarkKind::kGap:
            return "gap: " + Counted(static_cast<size_t>(std::abs(mark.value)), "sample") +
                   " missed" + text;
        case MarkKind::kSuspend:
            return "the machine slept for " + span + text;
        case MarkKind::kClockStep:
            return std::string("the clock was set ") + (mark.value < 0 ? "back" : "forward") +
                   " by " + span + text;
        case MarkKind::kReboot:
            return "reboot" + text;
        case MarkKind::kAlarm:
            return "alarm" + text;
        case MarkKind::kAlarmEnd:
            return "alarm is over" + text;
        case MarkKind::kProcesses:
            break;
    }
    return "busiest processes" + text;
}

void StateMark(ReportWriter& report, const Mark& mark) {
    report.OpenObject();
    report.Number("time", mark.time.wall / 1000);
    report.Text("mark", MarkWord(mark.kind));
    report.Number("value", mark.value);
    if (!mark.text.empty()) report.Text("text", mark.text);
    report.Close();
}
