#include "switch_library/module_board.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "kemd/trace.h"
#include "switch_library/service_manager.h"

namespace {

void Assign(std::string& to, std::string_view text) noexcept {
    try {
        to = text;
    } catch (const std::bad_alloc&) {
        to.clear();
    }
}

void Enter(ModuleInfo& module, ModuleState state, std::string_view reason) noexcept {
    module.state = state;
    module.since = time(nullptr);
    Assign(module.reason, reason);
    if (state == ModuleState::kRunning) return;
    module.health = -1;
    module.healthText.clear();
}

bool IsStartCall(const char* name) {
    constexpr std::array<std::string_view, 3> kNames = {"load", "configure", "start"};
    return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

}  // namespace

ModuleBoard& TheModuleBoard() {
    static ModuleBoard board;
    return board;
}

const char* StateName(ModuleState state) {
    switch (state) {
        case ModuleState::kNotLoaded:
            return "not loaded";
        case ModuleState::kDisabled:
            return "disabled";
        case ModuleState::kStarting:
            return "starting";
        case ModuleState::kRunning:
            return "running";
        case ModuleState::kFailed:
            return "failed";
        case ModuleState::kRestarting:
            return "restarting";
        case ModuleState::kStopping:
            return "stopping";
        case ModuleState::kStopped:
            return "stopped";
    }
    return "";
}

double ModuleBoard::Call::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

ModuleInfo* ModuleBoard::Find(std::string_view file) {
    const auto found =
        std::find_if(m_modules.begin(), m_modules.end(),
                     [file](const ModuleInfo& module) { return module.file == file; });
    return found != m_modules.end() ? &*found : nullptr;
}

void ModuleBoard::Add(const std::string& file, const ModuleSettings& settings) {
    const std::lock_guard lock(m_lock);
    ModuleInfo* module = Find(file);
    if (module == nullptr) {
        const auto place = std::find_if(m_modules.begin(), m_modules.end(),
                                        [&](const ModuleInfo& each) { return each.file > file; });
        module = &*m_modules.emplace(place);
        module->file = file;
        module->since = time(nullptr);
    }
    module->startTimeoutMs = settings.startTimeoutMs;
    module->stopTimeoutMs = settings.stopTimeoutMs;
}

void ModuleBoard::Describe(const std::string& file, const ModuleObject& object) noexcept {
    const std::lock_guard lock(m_lock);
    ModuleInfo* const module = Find(file);
    if (module == nullptr) return;
    const auto text = [](const char* given) { return given != nullptr ? given : ""; };
    module->process = 0;
    module->hasHealth = object.HasHealth();
    Assign(module->version, text(object.Version()));
    Assign(module->description, text(object.Description()));
    module->startAfter.clear();
    try {
        for (const char* const* name = object.StartAfter(); *name != nullptr; ++name) {
            module->startAfter.emplace_back(*name);
        }
    } catch (const std::bad_alloc&) {
        module->startAfter.clear();
    }
}

void ModuleBoard::Set(const std::string& file, ModuleState state,
                      std::string_view reason) noexcept {
    const std::lock_guard lock(m_lock);
    if (ModuleInfo* const module = Find(file)) Enter(*module, state, reason);
}

void ModuleBoard::Change(const std::string& file, ModuleState from, ModuleState to,
                         std::string_view reason) noexcept {
    const std::lock_guard lock(m_lock);
    ModuleInfo* const module = Find(file);
    if (module != nullptr && module->state == from) Enter(*module, to, reason);
}

void ModuleBoard::SetProcess(const std::string& file, pid_t process) noexcept {
    const std::lock_guard lock(m_lock);
    if (ModuleInfo* const module = Find(file)) module->process = process;
}

void ModuleBoard::SetHealth(const std::string& file, int health, std::string_view text) noexcept {
    const std::lock_guard lock(m_lock);
    ModuleInfo* const module = Find(file);
    if (module == nullptr) return;
    module->health = health;
    Assign(module->healthText, text);
}

void ModuleBoard::SetThreads(const std::string& file, const ThreadIds& threads) noexcept {
    const std::lock_guard lock(m_lock);
    ModuleInfo* const module = Find(file);
    if (module == nullptr) return;
    try {
        module->threads = threads;
    } catch (const std::bad_alloc&) {
        module->threads.clear();
    }
}

void ModuleBoard::Clear() {
    const std::lock_guard lock(m_lock);
    std::vector<ModuleInfo>().swap(m_modules);
}

void ModuleBoard::BeginCall(const std::string& file, const char* name) noexcept {
    const std::lock_guard lock(m_lock);
    const ModuleInfo* const module = Find(file);
    m_call.file[file.copy(m_call.file.data(), m_call.file.size() - 1)] = '\0';
    m_call.name = name;
    m_call.begin = Clock::now();
    m_call.isOverdue = false;
    const ModuleSettings defaults;
    m_call.timeout = std::chrono::milliseconds(
        IsStartCall(name) ? (module != nullptr ? module->startTimeoutMs : defaults.startTimeoutMs)
                          : (module != nullptr ? module->stopTimeoutMs : defaults.stopTimeoutMs));
    SetTimer(m_call.timeout);
}

void ModuleBoard::EndCall() noexcept {
    Call ended;
    {
        const std::lock_guard lock(m_lock);
        std::swap(ended, m_call);
        SetTimer({});
    }
    if (!ended.isOverdue) return;
    KemdMessage(kTag, "module %s has come back from its %s after %.1f s", ended.file.data(),
                ended.name, ended.Seconds());
}

void ModuleBoard::ForgetOverdue() noexcept {
    const std::lock_guard lock(m_lock);
    m_call.isOverdue = false;
}

bool ModuleBoard::OpenWatch() {
    const std::lock_guard lock(m_lock);
    m_watch.Reset(KeepHigh(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)));
    return m_watch.IsOpen();
}

void ModuleBoard::CloseWatch() {
    const std::lock_guard lock(m_lock);
    m_watch.Reset();
}

// No delay: off.
void ModuleBoard::SetTimer(std::chrono::milliseconds delay) const {
    if (!m_watch.IsOpen()) return;
    itimerspec time{};
    time.it_value.tv_sec = delay.count() / 1000;
    time.it_value.tv_nsec = delay.count() % 1000 * 1'000'000;
    (void)timerfd_settime(m_watch.Get(), 0, &time, nullptr);
}

void ModuleBoard::NameOverdueCall() {
    uint64_t expirations = 0;
    (void)!read(m_watch.Get(), &expirations, sizeof expirations);
    Call call;
    {
        const std::lock_guard lock(m_lock);
        // It may have ended, or be another one, since the timer ran out.
        if (!m_call.IsRunning() || m_call.isOverdue || Clock::now() < m_call.begin + m_call.timeout)
            return;
        m_call.isOverdue = true;
        call = m_call;
    }
    constexpr const char* kText = "module %s hangs: its %s has not come back within %.1f s";
    const double waited = std::chrono::duration<double>(call.timeout).count();
    KemdMessage(kTag, kText, call.file.data(), call.name, waited);
    WriteToJournal(kText, call.file.data(), call.name, waited);
}

bool ModuleBoard::Has(const std::string& file) {
    const std::lock_guard lock(m_lock);
    return Find(file) != nullptr;
}

std::string ModuleBoard::Reason(const std::string& file) {
    const std::lock_guard lock(m_lock);
    const ModuleInfo* const module = Find(file);
    return module != nullptr ? module->reason : "";
}

std::vector<ModuleInfo> ModuleBoard::Modules() const {
    const std::lock_guard lock(m_lock);
    return m_modules;
}

ModuleBoard::Call ModuleBoard::RunningCall() const {
    const std::lock_guard lock(m_lock);
    return m_call;
}
