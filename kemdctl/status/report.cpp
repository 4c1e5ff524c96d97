#include "kemdctl/status/report.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "base/paths.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"

namespace {

void Show(std::string_view name, const std::string& value) {
    constexpr size_t kWidth = 17;
    Write(std::string(name) + ":" + std::string(kWidth - name.size(), ' ') + value + "\n");
}

// In its two largest units: "3 d 4 h".
std::string Age(time_t seconds) {
    if (seconds < 0) return "-" + Age(-seconds);  // the clock was set back
    struct Unit {
        time_t length;
        const char* name;
    };
    constexpr std::array<Unit, 4> kUnits = {{{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}}};
    size_t unit = 0;
    while (unit + 1 < kUnits.size() && seconds < kUnits[unit].length) ++unit;
    std::string text = std::to_string(seconds / kUnits[unit].length) + kUnits[unit].name;
    const time_t rest = seconds % kUnits[unit].length;
    if (unit + 1 < kUnits.size() && rest >= kUnits[unit + 1].length) {
        text += " " + std::to_string(rest / kUnits[unit + 1].length) + kUnits[unit + 1].name;
    }
    return text;
}

std::string LocalTime(time_t time) {
    tm local{};
    char text[32] = "";
    if (localtime_r(&time, &local) != nullptr) std::strftime(text, sizeof text, "%F %T", &local);
    return text;
}

void ShowDaemon(const Status& status) {
    if (!status.state.daemon) return Show("state", "not running");
    const ProcessFacts& daemon = *status.state.daemon;
    Show("state", "running, process " + std::to_string(daemon.pid));
    if (daemon.started) {
        Show("since", LocalTime(*daemon.started) + " (" + Age(status.now - *daemon.started) + ")");
    }
    const RunOptions options = ReadRunOptions(daemon);
    std::string mode = "cannot be seen";
    if (!daemon.arguments.empty()) {
        mode = std::to_string(options.mode) + ", " + std::string(options.modeName);
        mode += options.isForeground ? ", foreground" : ", background";
        if (options.isRescan) mode += ", rescan of the modules";
    }
    Show("run mode", mode);
}

std::string TargetName(long target) {
    const std::array<const char*, 3> names = {"none", "log", "ring buffer"};
    const auto index = static_cast<size_t>(target);
    return std::to_string(target) + (index < names.size() ? std::string(", ") + names[index] : "");
}

void ShowHeader(const Status& status) {
    const TraceFileFacts& ring = status.Ring();
    const TraceHeader& header = ring.error == 0 ? ring.header : status.trace.log.header;
    if (!header.level) {
        const bool isHidden = ring.error != 0 && ring.error != ENOENT;
        return Show("trace level", isHidden ? "unknown, as the ring buffer cannot be read"
                                            : "unknown, as no trace file has a header");
    }
    std::string whose;
    if (status.Pid() != 0 && header.processId && *header.processId != status.Pid()) {
        whose = " (of process " + std::to_string(*header.processId) + ", not of this one)";
    }
    Show("trace level", std::to_string(*header.level) + whose);
    if (header.target) Show("trace target", TargetName(*header.target) + whose);
}

void ShowFile(std::string_view name, const TraceFileFacts& file, const std::string& more) {
    if (file.error == ENOENT) return Show(name, "not there");
    if (file.error != 0)
        return Show(name, std::string("cannot be read: ") + std::strerror(file.error));
    Show(name,
         Printable(file.path) + ", " + Counted(static_cast<size_t>(file.size), "byte") + more);
}

void ShowNewest(const Status& status) {
    const TraceFileFacts* const newest = status.trace.Newest();
    if (newest == nullptr) return Show("newest record", "none");
    const auto time = TimeOfStamp(newest->newest);
    Show("newest record", newest->newest + (time ? " (" + Age(status.now - *time) + " ago)" : "") +
                              " in " + Printable(newest->path.substr(newest->path.rfind('/') + 1)));
}

void ShowModules(const Status& status) {
    std::string list;
    for (const auto& [file, module] : status.trace.modules) {
        list += (list.empty() ? "" : ", ") + Printable(file) + " " + module.state;
    }
    const std::string& note = status.moduleNote;
    Show("modules", list.empty() ? note : list + (note.empty() ? "" : " (" + note + ")"));
}

}  // namespace

void ShowStatus(const Status& status) {
    ShowDaemon(status);
    Show("lock file", DescribeLock(status.state));
    Show("process-id file", DescribePidFile(status.state));
    const bool isEmpty = status.traceDirectory.empty();
    Show("trace directory",
         (isEmpty ? "none: the log is /log.kemd" : Printable(status.traceDirectory)) +
             " (by the configuration and " + status.traceSource + ")");
    ShowHeader(status);
    const TraceFileFacts& log = status.trace.log;
    ShowFile("log", log, ", wrapped " + Counted(static_cast<size_t>(log.cycles), "time"));
    ShowFile("ring buffer", status.Ring(), "");
    ShowNewest(status);
    ShowModules(status);
    for (const Finding& finding : status.findings.All()) {
        if (finding.severity != Severity::kOk) {
            Show(Name(finding.severity), finding.what + " -- " + finding.action);
        }
    }
}
