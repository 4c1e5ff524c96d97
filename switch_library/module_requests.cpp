// What clients of the control socket ask of modules, on the control server's worker.
#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "kemd/trace.h"
#include "switch_library/module_board.h"
#include "switch_library/module_switch.h"

namespace {

// Collects what a module answers.
struct Reply : KemdReply {
    static constexpr size_t kMostBytes = size_t{64} << 10;
    std::string text;

    Reply() : KemdReply{Append} {}

  private:
    static int Append(KemdReply* reply, const char* bytes, size_t length) {
        std::string& text = static_cast<Reply*>(reply)->text;
        if (length > kMostBytes - text.size()) return EMSGSIZE;
        try {
            text.append(bytes, length);
            return 0;
        } catch (const std::bad_alloc&) {
            return ENOMEM;
        }
    }
};

std::string Of(const std::string& name, const std::string& what) {
    return "module " + name + " " + what;
}

// Of a change that failed.
std::string Stopped(const ControlOutcome& outcome) {
    std::string text;
    for (const std::string& name : outcome.stopped) {
        text += (text.empty() ? " (stopped: " : ", ") + name;
    }
    return text.empty() ? text : text + ")";
}

}  // namespace

std::string ModuleSwitch::Execute(const ControlRequest& request) {
    if (request.kind == ControlRequest::kRegistry) {  // calls no module
        std::string absent;
        const std::string failure = ChangeRegistry(request.change, absent);
        if (!failure.empty()) return ControlError(failure);
        return ControlResult(absent.empty() ? "{}" : "{\"absent\":" + JsonQuoted(absent) + "}");
    }
    const std::lock_guard calls(m_calls);
    if (m_isStopping) return ControlError("kemd stops");
    ControlOutcome outcome;
    outcome.module = request.module;
    std::string fault;
    switch (request.kind) {
        case ControlRequest::kStart:
            fault = StartOne(request.module, outcome);
            break;
        case ControlRequest::kStop:
            fault = TheModuleBoard().Has(request.module + ".so")
                        ? StopOne(request.module, outcome)
                        : "there is no module " + request.module;
            break;
        case ControlRequest::kRestart:
            fault = RestartOne(request.module, outcome);
            break;
        case ControlRequest::kReload:
            fault = ReloadOne(request.module, outcome);
            break;
        case ControlRequest::kRequest:
            return RequestOne(request);
        case ControlRequest::kHealth:
            AskHealth();
            return {};
        case ControlRequest::kRevive:
            ReviveOne(request.module);
            return {};
        case ControlRequest::kModules:
        case ControlRequest::kShow:
        case ControlRequest::kRegistry:
        case ControlRequest::kTraceLevel:
            return {};  // the control thread's
    }
    ShowRunning();
    if (!fault.empty()) return ControlError(fault + Stopped(outcome));
    outcome.state = Runs(request.module) ? "running" : "stopped";
    return outcome.Answer();
}

bool ModuleSwitch::HasNoProcess(const Module& module) {
    return module.isolated != nullptr && !module.isolated->IsAlive();
}

ModuleSwitch::Module* ModuleSwitch::Find(const std::string& name) {
    const auto found = std::find_if(m_modules.begin(), m_modules.end(), [&](const Module& module) {
        return ModuleName(module.name) == name;
    });
    return found != m_modules.end() ? &*found : nullptr;
}

std::string ModuleSwitch::StartOne(const std::string& name, ControlOutcome& outcome) {
    if (name.find('/') != name.npos) return "there is no module " + name;
    Module* module = Find(name);
    const bool isUp = module != nullptr && module->startedAs != 0 && !HasNoProcess(*module);
    if (isUp) {
        outcome.note = "it runs already";
        return {};
    }
    std::string fault;
    ModuleSettings settings = ReadModuleSettings(name, fault);
    if (!fault.empty() || !settings.isEnabled) {
        const bool isDisabled = fault.empty();
        if (isDisabled) fault = "by " + settings.file;
        // One that is still in memory stays "stopped" or "failed", which is more.
        if (module == nullptr) {
            TheModuleBoard().Set(
                name + ".so", isDisabled ? ModuleState::kDisabled : ModuleState::kNotLoaded, fault);
        }
        return Of(name, (isDisabled ? "is disabled: " : "is not started: ") + fault);
    }
    if (module != nullptr && (module->isolated != nullptr) != settings.isIsolated) {
        if (module->isolated == nullptr) {
            return Of(name, "is still in memory: restart kemd to have it in a process of its own");
        }
        Erase(*module);
        module = nullptr;
    }
    if (module == nullptr) {
        fault = LoadOne(name + ".so");
        if (!fault.empty()) return Of(name, "is not loaded: " + fault);
        module = Find(name);
        if (module->failed) {
            return Of(name, "is not loaded: " + TheModuleBoard().Reason(module->name));
        }
    } else {
        TheModuleBoard().Add(module->name, settings);
        module->settings = std::move(settings);
    }
    if (const char* const missing = MissingFor(*module)) {
        return Of(name, std::string("needs the module ") + missing + ", which does not run");
    }
    module->isWanted = true;
    StartModule(*module);
    if (module->failed) return Of(name, "does not start: " + TheModuleBoard().Reason(module->name));
    outcome.started.push_back(name);
    StartWanted(outcome.started);
    return {};
}

void ModuleSwitch::StartWanted(std::vector<std::string>& started) {
    while (Module* const module = NextToStart()) {
        StartModule(*module);
        if (!module->failed) started.push_back(ModuleName(module->name));
    }
}

// Directly or by way of others; both run.
bool ModuleSwitch::Needs(const Module& module, const std::string& name) const {
    for (const char* const* after = module.object.StartAfter(); *after != nullptr; ++after) {
        if (*after == name) return true;
        const bool needs = std::any_of(m_modules.begin(), m_modules.end(), [&](const Module& each) {
            return each.startedAs != 0 && each.startedAs < module.startedAs &&
                   ModuleName(each.name) == *after && Needs(each, name);
        });
        if (needs) return true;
    }
    return false;
}

std::string ModuleSwitch::StopOne(const std::string& name, ControlOutcome& outcome) {
    Module* const module = Find(name);
    if (module == nullptr || module->startedAs == 0) {
        if (module != nullptr) Withdraw(*module);
        outcome.note = "it does not run";
        return {};
    }
    for (;;) {
        Module* last = nullptr;  // of those that need it
        for (Module& each : m_modules) {
            const bool isLater = each.startedAs > (last != nullptr ? last->startedAs : 0);
            if (isLater && Needs(each, name)) last = &each;
        }
        if (last == nullptr) break;
        StopModule(*last);
        outcome.stopped.push_back(ModuleName(last->name));
    }
    module->isWanted = false;
    StopModule(*module);
    if (module->failed) {
        return Of(name, "failed to stop: " + TheModuleBoard().Reason(module->name));
    }
    outcome.stopped.push_back(name);
    const std::string kept = UnloadOne(*module);
    if (!kept.empty()) outcome.note = "it stays in memory: " + kept;
    return {};
}

// It does not run, and shall not be started by others' starts or after a failure.
void ModuleSwitch::Withdraw(Module& module) {
    module.isWanted = false;
    if (module.isolated == nullptr) return;
    TheModuleBoard().Set(module.name, ModuleState::kStopped);
    Erase(module);
}

std::string ModuleSwitch::RestartOne(const std::string& name, ControlOutcome& outcome) {
    std::string fault = StopOne(name, outcome);
    if (!fault.empty()) return fault;
    if (outcome.stopped.empty()) outcome.note.clear();  // it did not run
    return StartOne(name, outcome);
}

std::string ModuleSwitch::ThreadsThatMayBeOf(const Module& module) const {
    ThreadIds known = m_ownThreads;
    known.push_back(m_isolated.ThreadId());
    for (const Module& each : m_modules) {
        if (&each == &module) continue;
        known.insert(known.end(), each.threads.begin(), each.threads.end());
    }
    std::sort(known.begin(), known.end());
    AwaitOnly(known);
    const ThreadIds left = Without(LiveThreads(), known);
    if (left.empty()) return {};
    return "thread " + std::to_string(left.front()) + " (" + ThreadName(left.front()).data() +
           ") runs, which may be its own";
}

std::string ModuleSwitch::UnloadOne(Module& module) {
    if (module.isolated != nullptr) {
        module.isolated->Unload();
        Erase(module);
        return {};
    }
    if (module.isKept) return "it failed before, and something of it may still run";
    std::string threads = ThreadsThatMayBeOf(module);
    if (!threads.empty()) return threads;
    const void* const inside = dlsym(module.library, "kemdModule");
    CloseModule(module.name, module.library);
    Dl_info place{};
    if (dladdr(inside, &place) != 0) {
        // Nothing of it has been destroyed; its record needs a handle again.
        module.library = OpenModule(module.name, place.dli_fname);
        return "the dynamic loader keeps it (symbols that are unique in the process, or linked so)";
    }
    Erase(module);
    return {};
}

void ModuleSwitch::Erase(Module& module) {
    const std::lock_guard lock(m_lock);
    m_modules.erase(m_modules.begin() + (&module - m_modules.data()));
}

std::string ModuleSwitch::ReloadOne(const std::string& name, ControlOutcome& outcome) {
    Module* const module = Find(name);
    if (module == nullptr || module->startedAs == 0) {
        return Of(name, "does not run; it reads its settings when it starts");
    }
    if (HasNoProcess(*module)) {
        return Of(name, "does not run now: " + TheModuleBoard().Reason(module->name) +
                            "; it reads its settings when it starts");
    }
    std::string fault;
    ModuleSettings settings = ReadModuleSettings(name, fault);
    if (!fault.empty()) return fault;
    TheModuleBoard().Add(module->name, settings);
    if (module->isolated != nullptr) module->isolated->Use(settings);
    module->settings = std::move(settings);
    if (!module->object.HasConfigure()) {
        outcome.note = "it has no settings of its own";
        return {};
    }
    Thrown reason{};
    if (Configure(*module, reason)) return {};
    return Of(name, "refuses its settings and keeps those that it had: ") + reason.data() +
           "; kemdctl trace says more";
}

std::string ModuleSwitch::RequestOne(const ControlRequest& request) {
    Module* const module = Find(request.module);
    if (module == nullptr || module->startedAs == 0) {
        return ControlError(Of(request.module, "does not run"));
    }
    if (HasNoProcess(*module)) {
        return ControlError(
            Of(request.module, "does not run now: " + TheModuleBoard().Reason(module->name)));
    }
    if (!module->object.HasRequest()) {
        return ControlError(Of(request.module, "takes no requests"));
    }
    Reply reply;
    int result = 0;
    Thrown reason{};
    if (!CallModule(module->name, "request", reason,
                    [&] { result = module->object.Request(request.text.c_str(), reply); })) {
        return ControlError(Of(request.module, "failed in the request: ") + reason.data());
    }
    if (result == 0) {
        ControlOutcome outcome;
        outcome.module = request.module;
        outcome.reply = std::move(reply.text);
        return outcome.Answer();
    }
    const std::string text = reply.text.empty() ? "" : ": " + reply.text;
    return ControlError(Of(request.module, "refuses the request: ") + std::strerror(result) + text);
}

void ModuleSwitch::AskHealth() {
    for (const Module& module : m_modules) {
        if (module.startedAs == 0 || !module.object.HasHealth()) continue;
        if (HasNoProcess(module)) continue;
        std::array<char, 256> text{};
        int health = KEMD_HEALTH_FAILED;
        Thrown reason{};
        const bool returned = CallModule(module.name, "health", reason, [&] {
            health = module.object.Health(text.data(), text.size());
        });
        text.back() = '\0';
        TheModuleBoard().SetHealth(module.name, returned ? health : KEMD_HEALTH_FAILED,
                                   returned ? text.data() : reason.data());
    }
}

void ModuleSwitch::ReviveOne(const std::string& file) {
    const std::string name = ModuleName(file);
    Module* const module = Find(name);
    if (module == nullptr || module->isolated == nullptr || !module->isWanted) return;
    if (module->isolated->IsAlive()) return;
    std::string fault;
    ModuleSettings settings = ReadModuleSettings(name, fault);
    if (fault.empty() && !settings.isEnabled) fault = "disabled by " + settings.file;
    if (!fault.empty()) {
        KemdMessage("switch", "module %s is not started again: %s", file.c_str(), fault.c_str());
        return TheModuleBoard().Set(file, ModuleState::kFailed, fault);
    }
    TheModuleBoard().Add(file, settings);
    module->settings = std::move(settings);
    StartModule(*module);
    if (module->failed) return;
    std::vector<std::string> started;
    StartWanted(started);
    ShowRunning();
}

// Any thread.
bool ModuleSwitch::PostRevive(const std::string& file) {
    ControlRequest request;
    request.kind = ControlRequest::kRevive;
    request.module = file;
    return m_control.Post(request);
}
