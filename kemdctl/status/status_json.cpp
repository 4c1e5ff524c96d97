#include <cerrno>
#include <cstring>

#include "base/paths.h"
#include "kemdctl/status/report.h"
#include "kemdctl/ui/json.h"

namespace {

class Members {
  public:
    explicit Members(JsonWriter& json) : m_json(json) {}
    void Text(std::string_view key, std::string_view text) const {
        m_json.Key(key);
        m_json.Text(text);
    }
    void Number(std::string_view key, std::optional<int64_t> number) const {
        if (!number) return;
        m_json.Key(key);
        m_json.Number(*number);
    }
    void Flag(std::string_view key, bool value) const {
        m_json.Key(key);
        m_json.Flag(value);
    }
    void Open(std::string_view key, char bracket = '{') const {
        m_json.Key(key);
        m_json.Open(bracket);
    }
    void Close(char bracket = '}') const { m_json.Close(bracket); }

  private:
    JsonWriter& m_json;
};

void AddDaemon(const Members& members, const Status& status) {
    members.Flag("running", status.state.daemon.has_value());
    if (!status.state.daemon) return;
    const ProcessFacts& daemon = *status.state.daemon;
    members.Number("pid", daemon.pid);
    if (daemon.started) {
        members.Number("started", *daemon.started);
        members.Number("age", status.now - *daemon.started);
    }
    if (daemon.arguments.empty()) return;
    const RunOptions options = ReadRunOptions(daemon);
    members.Number("runMode", options.mode);
    members.Text("runModeName", options.modeName);
    members.Flag("foreground", options.isForeground);
    members.Flag("rescan", options.isRescan);
}

void AddFiles(const Members& members, const DaemonState& state) {
    members.Open("lock");
    members.Text("path", kLockFile);
    members.Flag("exists", state.lock.exists);
    members.Text("content", state.lock.content);
    if (state.lock.held != LockFacts::kUnknown) {
        members.Flag("held", state.lock.held == LockFacts::kHeld);
    }
    if (state.lock.taker > 0) members.Number("taker", state.lock.taker);
    if (state.Holder() > 0) members.Number("holder", state.Holder());
    members.Text("finding", DescribeLock(state));
    members.Close();
    members.Open("pidFile");
    members.Text("path", kPidFile);
    members.Flag("exists", state.pidFile.exists);
    if (state.pidFile.process.pid != 0) members.Number("pid", state.pidFile.process.pid);
    members.Text("finding", DescribePidFile(state));
    members.Close();
}

void AddTraceFile(const Members& members, std::string_view key, const TraceFileFacts& file) {
    if (file.error == ENOENT) return;
    members.Open(key);
    members.Text("path", file.path);
    if (file.error != 0) members.Text("error", std::strerror(file.error));
    if (file.error == 0) members.Number("size", file.size);
    if (key == "log" && file.error == 0) members.Number("cycles", file.cycles);
    members.Number("headerPid", file.header.processId);
    members.Number("target", file.header.target);
    members.Number("level", file.header.level);
    if (!file.newest.empty()) members.Text("newest", file.newest);
    members.Close();
}

void AddTrace(const Members& members, const Status& status) {
    members.Open("trace");
    members.Text("directory", status.traceDirectory);
    members.Text("variablesFrom", status.traceSource);
    AddTraceFile(members, "log", status.trace.log);
    AddTraceFile(members, "ring", status.Ring());
    const TraceFileFacts* const newest = status.trace.Newest();
    const auto time = newest != nullptr ? TimeOfStamp(newest->newest) : std::nullopt;
    if (newest != nullptr) members.Text("newest", newest->newest);
    if (time) members.Number("newestAge", status.now - *time);
    members.Close();
}

}  // namespace

void ShowStatusAsJson(const Status& status) {
    JsonWriter json;
    const Members members(json);
    json.Open('{');
    AddDaemon(members, status);
    AddFiles(members, status.state);
    AddTrace(members, status);
    members.Open("modules", '[');
    for (const auto& [file, module] : status.trace.modules) {
        json.Open('{');
        members.Text("file", file);
        members.Text("state", module.state);
        members.Text("time", module.stamp);
        json.Close('}');
    }
    json.Close(']');
    if (!status.moduleNote.empty()) members.Text("modulesNote", status.moduleNote);
    members.Open("findings", '[');
    for (const Finding& finding : status.findings.All()) {
        if (finding.severity != Severity::kOk) ShowAsJson(json, finding);
    }
    json.Close(']');
    json.Close('}');
    json.Finish();
}
