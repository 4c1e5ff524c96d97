#include "kemdctl/status/report.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "base/paths.h"
#include "kemdctl/facts/daemon_control.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr size_t kColumn = 18;

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

std::string RunModeText(const RunOptions& options) {
    std::string text = std::to_string(options.mode) + ", " + std::string(options.modeName);
    text += options.isForeground ? ", foreground" : ", background";
    return options.isRescan ? text + ", rescan of the modules" : text;
}

void ShowDaemon(ReportWriter& report, const Status& status) {
    report.Flag("running", status.state.daemon.has_value());
    if (!status.state.daemon) return report.Field("state", "not running");
    const ProcessFacts& daemon = *status.state.daemon;
    report.Number("pid", daemon.pid);
    report.Field("state", "running, process " + std::to_string(daemon.pid));
    if (daemon.started) {
        const time_t age = status.now - *daemon.started;
        report.Number("started", daemon.started);
        report.Number("age", age);
        report.Field("since", LocalTime(*daemon.started) + " (" + Age(age) + ")");
    }
    if (daemon.arguments.empty()) return report.Field("run mode", "cannot be seen");
    const RunOptions options = ReadRunOptions(daemon);
    report.Number("runMode", options.mode);
    report.Text("runModeName", options.modeName);
    report.Flag("foreground", options.isForeground);
    report.Flag("rescan", options.isRescan);
    report.Field("run mode", RunModeText(options));
}

void ShowLock(ReportWriter& report, const DaemonState& state) {
    const LockFacts& lock = state.lock;
    const std::string finding = DescribeLock(state);
    report.Object("lock", [&] {
        report.Text("path", kLockFile);
        report.Flag("exists", lock.exists);
        report.Text("content", lock.content);
        if (lock.held != LockFacts::kUnknown) report.Flag("held", lock.held == LockFacts::kHeld);
        if (lock.taker > 0) report.Number("taker", lock.taker);
        if (state.Holder() > 0) report.Number("holder", state.Holder());
        report.Text("finding", finding);
    });
    report.Field("lock file", finding);
}

void ShowPidFile(ReportWriter& report, const DaemonState& state) {
    const pid_t pid = state.pidFile.process.pid;
    const std::string finding = DescribePidFile(state);
    report.Object("pidFile", [&] {
        report.Text("path", kPidFile);
        report.Flag("exists", state.pidFile.exists);
        if (pid != 0) report.Number("pid", pid);
        report.Text("finding", finding);
    });
    report.Field("process-id file", finding);
}

std::string TargetName(long target) {
    const std::array<const char*, 3> names = {"none", "log", "ring buffer"};
    const auto index = static_cast<size_t>(target);
    return std::to_string(target) + (index < names.size() ? std::string(", ") + names[index] : "");
}

// For people, of the file that matters; the JSON has those of both files.
void ShowSettings(ReportWriter& report, const Status& status) {
    const TraceFileFacts& ring = status.Ring();
    const TraceHeader& header = ring.error == 0 ? ring.header : status.trace.log.header;
    if (!header.level) {
        const bool isHidden = ring.error != 0 && ring.error != ENOENT;
        return report.Field("trace level", isHidden ? "unknown, as the ring buffer cannot be read"
                                                    : "unknown, as no trace file has a header");
    }
    std::string whose;
    if (status.Pid() != 0 && header.processId && *header.processId != status.Pid()) {
        whose = " (of process " + std::to_string(*header.processId) + ", not of this one)";
    }
    report.Field("trace level", std::to_string(*header.level) + whose);
    if (header.target) report.Field("trace target", TargetName(*header.target) + whose);
}

// `cycles`: of the log.
void ShowFile(ReportWriter& report, const char* key, const char* label, const TraceFileFacts& file,
              std::optional<long> cycles) {
    if (file.error == ENOENT) return report.Field(label, "not there");
    const std::string error = file.error != 0 ? std::strerror(file.error) : "";
    report.Object(key, [&] {
        report.Text("path", file.path);
        if (file.error != 0) {
            report.Text("error", error);
        } else {
            report.Number("size", file.size);
            report.Number("cycles", cycles);
        }
        report.Number("headerPid", file.header.processId);
        report.Number("target", file.header.target);
        report.Number("level", file.header.level);
        if (!file.newest.empty()) report.Text("newest", file.newest);
    });
    if (file.error != 0) return report.Field(label, "cannot be read: " + error);
    std::string text =
        Printable(file.path) + ", " + Counted(static_cast<size_t>(file.size), "byte");
    if (cycles) text += ", wrapped " + Counted(static_cast<size_t>(*cycles), "time");
    report.Field(label, text);
}

void ShowNewest(ReportWriter& report, const Status& status) {
    const TraceFileFacts* const file = status.trace.Newest();
    if (file == nullptr) return report.Field("newest record", "none");
    const auto time = TimeOfStamp(file->newest);
    report.Text("newest", file->newest);
    if (time) report.Number("newestAge", status.now - *time);
    report.Field("newest record",
                 file->newest + (time ? " (" + Age(status.now - *time) + " ago)" : "") + " in " +
                     Printable(file->path.substr(file->path.rfind('/') + 1)));
}

void ShowTrace(ReportWriter& report, const Status& status) {
    const std::string& directory = status.traceDirectory;
    report.Text("directory", directory);
    report.Text("variablesFrom", status.traceSource);
    report.Field("trace directory",
                 (directory.empty() ? "none: the log is /log.kemd" : Printable(directory)) +
                     " (by the configuration and " + status.traceSource + ")");
    ShowSettings(report, status);
    ShowFile(report, "log", "log", status.trace.log, status.trace.log.cycles);
    ShowFile(report, "ring", "ring buffer", status.Ring(), std::nullopt);
    ShowNewest(report, status);
}

std::string ModuleText(const JsonValue& module) {
    const std::string version = TextOr(module, "version", "");
    const std::string health = TextOr(module, "health", "");
    const std::string healthText = TextOr(module, "healthText", "");
    const std::string reason = TextOr(module, "reason", "");
    std::string text = TextOr(module, "name", "") + (version.empty() ? "" : " " + version) + ", " +
                       TextOr(module, "state", "") + " since " + SinceText(module);
    if (!reason.empty()) text += ": " + reason;
    if (!health.empty()) text += ", health " + health;
    return text + (healthText.empty() ? "" : ": " + healthText);
}

// One line each.
void ShowAnswer(ReportWriter& report, const std::vector<JsonValue>& modules) {
    report.List("moduleStates", modules, [&](const JsonValue& module) {
        StateAnswer(report, {}, module);
        if (&module == modules.data()) return report.Field("modules", ModuleText(module));
        report.Line([&] { return std::string(kColumn, ' ') + ModuleText(module); });
    });
}

void ShowModules(ReportWriter& report, const Status& status) {
    std::string list;
    report.List("modules", status.trace.modules, [&](const auto& each) {
        const auto& [file, module] = each;
        report.Object({}, [&, &file = file, &module = module] {
            report.Text("file", file);
            report.Text("state", module.state);
            report.Text("time", module.stamp);
        });
        list += (list.empty() ? "" : ", ") + Printable(file) + " " + module.state;
    });
    const std::string& note = status.moduleNote;
    if (!note.empty()) report.Text("modulesNote", note);
    if (status.modules && !status.modules->elements.empty()) {
        return ShowAnswer(report, status.modules->elements);
    }
    report.Field("modules", list.empty() ? note : list + (note.empty() ? "" : " (" + note + ")"));
}

}  // namespace

void ShowStatus(ReportWriter& report, const Status& status) {
    report.SetColumn(kColumn);
    report.Object({}, [&] {
        ShowDaemon(report, status);
        ShowLock(report, status.state);
        ShowPidFile(report, status.state);
        report.Object("trace", [&] { ShowTrace(report, status); });
        ShowModules(report, status);
        report.List("findings", status.findings.Problems(), [&](const Finding& finding) {
            finding.Put(report);
            report.Field(Name(finding.severity), finding.what + " -- " + finding.action);
        });
    });
}
