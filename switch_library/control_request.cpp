#include "switch_library/control_request.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "base/json.h"
#include "kemd/module.h"
#include "switch_library/module_board.h"

namespace {

constexpr std::array<std::pair<std::string_view, ControlRequest::Kind>, 9> kRequests = {{
    {"modules", ControlRequest::kModules},
    {"show", ControlRequest::kShow},
    {"start", ControlRequest::kStart},
    {"stop", ControlRequest::kStop},
    {"restart", ControlRequest::kRestart},
    {"reload", ControlRequest::kReload},
    {"request", ControlRequest::kRequest},
    {"registry", ControlRequest::kRegistry},
    {"trace-level", ControlRequest::kTraceLevel},
}};

void AppendMember(std::string& to, std::string_view name, std::string_view json) {
    if (to.back() != '{') to += ',';
    AppendJson(to, name);
    to.append(":").append(json);
}

void AppendText(std::string& to, std::string_view name, std::string_view text) {
    if (!text.empty()) AppendMember(to, name, JsonQuoted(text));
}

void AppendTexts(std::string& to, std::string_view name, const std::vector<std::string>& texts) {
    std::string list = "[";
    for (const std::string& text : texts) {
        if (list.size() > 1) list += ',';
        AppendJson(list, text);
    }
    AppendMember(to, name, list + "]");
}

const char* HealthName(const ModuleInfo& module, bool isBusy) {
    if (isBusy) return "busy";
    switch (module.health) {
        case -1:
            return "unknown";
        case KEMD_HEALTH_OK:
            return "ok";
        case KEMD_HEALTH_WARNING:
            return "warning";
        default:
            return "failed";
    }
}

// What is the same for all modules of an answer.
struct Moment {
    ModuleBoard::Call call = TheModuleBoard().RunningCall();
    ThreadIds threads = LiveThreads();
    bool isBusy;

    explicit Moment(bool isHealthBusy) : isBusy(isHealthBusy) {}
    [[nodiscard]] bool Hangs(const ModuleInfo& module) const {
        return call.isOverdue && module.file == call.file.data();
    }
};

void AppendState(std::string& to, const ModuleInfo& module, const Moment& moment) {
    if (!moment.Hangs(module)) {
        AppendText(to, "state", StateName(module.state));
        AppendText(to, "reason", module.reason);
        return;
    }
    std::array<char, 96> reason{};
    std::snprintf(reason.data(), reason.size(), "its %s has not come back for %.1f s",
                  moment.call.name, moment.call.Seconds());
    AppendText(to, "state", "hanging");
    AppendText(to, "reason", reason.data());
}

// Of another process.
size_t ThreadCount(pid_t process) {
    struct stat tasks {};
    const std::string path = "/proc/" + std::to_string(process) + "/task";
    return stat(path.c_str(), &tasks) == 0 && tasks.st_nlink > 2 ? tasks.st_nlink - 2 : 0;
}

std::string Describe(const ModuleInfo& module, const Moment& moment) {
    std::string json = "{";
    AppendText(json, "name", ModuleName(module.file));
    AppendText(json, "version", module.version);
    AppendText(json, "description", module.description);
    AppendState(json, module, moment);
    AppendMember(json, "since", std::to_string(module.since));
    if (!module.startAfter.empty()) AppendTexts(json, "startAfter", module.startAfter);
    if (module.state == ModuleState::kRunning || module.state == ModuleState::kStopping ||
        module.state == ModuleState::kStarting) {
        const size_t ended = Without(module.threads, moment.threads).size();
        const bool isIsolated = module.process != 0;
        AppendMember(json, "pid", std::to_string(isIsolated ? module.process : getpid()));
        AppendMember(json, "threads",
                     std::to_string(isIsolated ? ThreadCount(module.process)
                                               : module.threads.size() - ended));
    }
    if (module.process != 0) AppendMember(json, "isolated", "true");
    if (module.state == ModuleState::kRestarting) AppendText(json, "health", "failed");
    if (module.state == ModuleState::kRunning && module.hasHealth) {
        AppendText(json, "health", HealthName(module, moment.isBusy));
        if (!moment.isBusy) AppendText(json, "healthText", module.healthText);
    }
    return json + "}";
}

// A whole number from `least` to `most`.
std::string ReadNumber(const std::string& member, const JsonValue& value, int64_t least,
                       int64_t most, int64_t& number) {
    const auto found = value.Number();
    if (!found || *found < least || *found > most) {
        return member + " is no number from " + std::to_string(least) + " to " +
               std::to_string(most);
    }
    number = *found;
    return {};
}

std::string ReadLevelMember(const std::string& member, const JsonValue& value,
                            ControlRequest& request) {
    constexpr int64_t kMostSeconds = int64_t{365} * 24 * 3600;
    if (member == "level") return ReadNumber(member, value, 0, 6, request.level.emplace());
    if (member == "seconds") return ReadNumber(member, value, 1, kMostSeconds, request.seconds);
    return "unknown member " + member;
}

std::string ReadMember(const std::string& member, const JsonValue& value, ControlRequest& request) {
    using Kind = ControlRequest::Kind;
    const bool hasModule = request.kind != Kind::kModules && request.kind != Kind::kRegistry;
    if (request.kind == Kind::kTraceLevel) return ReadLevelMember(member, value, request);
    const bool isChange = member == "set" || member == "delete" || member == "import";
    if (request.kind == Kind::kRegistry && isChange) {
        return ReadRegistryChange(member, value, request.change);
    }
    std::string* const text = member == "module" && hasModule                      ? &request.module
                              : member == "text" && request.kind == Kind::kRequest ? &request.text
                                                                                   : nullptr;
    if (text == nullptr) return "unknown member " + member;
    if (value.kind != JsonValue::kText) return member + " is no text";
    *text = value.text;
    return {};
}

}  // namespace

std::string ReadControlRequest(std::string_view line, ControlRequest& request) {
    std::string fault;
    const auto document = ParseJson(line, fault);
    if (!document) return "the request is no JSON: " + fault;
    if (document->kind != JsonValue::kObject) return "the request is no object";
    const std::string_view name = document->TextOf("request");
    const auto* const known = std::find_if(kRequests.begin(), kRequests.end(),
                                           [name](const auto& each) { return each.first == name; });
    if (known == kRequests.end()) {
        return name.empty() ? "\"request\" is missing" : "unknown request " + std::string(name);
    }
    request.kind = known->second;
    for (const auto& [member, value] : document->members) {
        if (member == "request") continue;
        fault = ReadMember(member, value, request);
        if (!fault.empty()) return fault;
    }
    if (request.kind == ControlRequest::kRegistry) {
        return request.change.kind == RegistryChange::kNone ? "\"set\" is missing" : "";
    }
    if (request.kind == ControlRequest::kTraceLevel) {
        return request.seconds != 0 && !request.level ? "\"level\" is missing" : "";
    }
    if (request.kind != ControlRequest::kModules && request.module.empty()) {
        return "\"module\" is missing";
    }
    return {};
}

std::string ControlError(std::string_view text) {
    return "{\"error\":" + JsonQuoted(text) + "}\n";
}

std::string ControlResult(std::string_view result) {
    return std::string("{\"result\":").append(result).append("}\n");
}

std::string DescribeModules(bool isBusy) {
    const Moment moment(isBusy);
    std::string list = "{\"pid\":" + std::to_string(getpid()) + ",\"modules\":[";
    for (const ModuleInfo& module : TheModuleBoard().Modules()) {
        if (list.back() != '[') list += ',';
        list += Describe(module, moment);
    }
    return ControlResult(list + "]}");
}

std::string DescribeModule(const std::string& name, bool isBusy) {
    for (const ModuleInfo& module : TheModuleBoard().Modules()) {
        if (ModuleName(module.file) == name) return ControlResult(Describe(module, Moment(isBusy)));
    }
    return ControlError("there is no module " + name);
}

std::string ControlOutcome::Answer() const {
    std::string json = "{";
    AppendText(json, "module", module);
    AppendText(json, "state", state);
    if (reply) AppendMember(json, "reply", JsonQuoted(*reply));
    if (!reply) AppendTexts(json, "started", started);
    if (!reply) AppendTexts(json, "stopped", stopped);
    AppendText(json, "note", note);
    return ControlResult(json + "}");
}
