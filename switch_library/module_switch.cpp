#include "switch_library/module_switch.h"

#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "base/file_safety.h"
#include "base/library_file.h"
#include "base/paths.h"
#include "kemd/config.h"
#include "kemd/trace.h"
#include "switch_library/crash_reports.h"
#include "switch_library/module_board.h"
#include "switch_library/module_call.h"
#include "switch_library/service_manager.h"

namespace {

std::string ModuleDirectory() {
    const char* directory = std::getenv("OV_MODULE_DIR");
    return directory != nullptr && *directory != '\0' ? directory : kModuleDirectory;
}

// The names of all files "*.so", sorted. False when the directory cannot be read.
bool ListModules(const std::string& directory, std::vector<std::string>& names) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), closedir);
    if (!entries) {
        constexpr const char* kText = "cannot read the module directory %s (%s)";
        const char* const reason = std::strerror(errno);
        KemdMessage(kTag, kText, directory.c_str(), reason);
        WriteToJournal(kText, directory.c_str(), reason);
        return false;
    }
    while (const dirent* entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.ends_with(".so")) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return true;
}

// Announces each step: if it never ends, the trace and the service status name the module.
void Announce(const std::string& name, const char* doing) {
    ShowStatus("%s module %s", doing, name.c_str());
    KemdTrace(kTag, 1, "module %s %s", name.c_str(), doing);
}

void Report(const std::string& name, const char* what, const char* reason) {
    KemdMessage(kTag, "module %s %s: %s", name.c_str(), what, reason);
}

// The same for a module that will not run: in the journal as well.
void LeaveOut(const std::string& name, ModuleState state, const char* what, const char* reason) {
    TheModuleBoard().Set(name, state, reason);
    Report(name, what, reason);
    WriteToJournal("module %s %s: %s", name.c_str(), what, reason);
}

// A static object of this class is an exit handler that is gone once the library is closed.
class ExitReport {
  public:
    explicit ExitReport(ModuleSwitch& modules) : m_modules(modules) {}
    ~ExitReport() { m_modules.ReportEnd("the process is ended"); }
    ExitReport(const ExitReport&) = delete;
    ExitReport& operator=(const ExitReport&) = delete;

  private:
    ModuleSwitch& m_modules;
};

}  // namespace

// The board is there for as long as the switch is.
ModuleSwitch::ModuleSwitch() {
    (void)TheModuleBoard();
}

bool ModuleSwitch::LoadModules(ModuleLoadParams* params) {
    const std::lock_guard calls(m_calls);
    const bool rescan = (params->flags & kForceRescan) != 0;
    if (m_scanned && !rescan) return true;
    const std::string directory = ModuleDirectory();
    KemdTrace(kTag, 2, "loading modules from %s (run mode %d, rescan %d)", directory.c_str(),
              params->runMode, rescan ? 1 : 0);
    if (m_modules.empty()) m_threadsBefore = LiveThreads();
    m_process = getpid();
    if (!m_control.IsRunning()) {
        m_control.Start();
        m_ownThreads = LiveThreads();
    }
    std::vector<std::string> names;
    if (!ListModules(directory, names)) return false;
    const std::string reason = Unsafe(WalkPath(directory));
    if (!reason.empty()) {
        KemdMessage(kTag, "no module is loaded: %s", reason.c_str());
        WriteToJournal("no module is loaded: %s", reason.c_str());
        return false;
    }
    // A module that cancels its caller would end the daemon's own thread. Never enabled again: a
    // pending request would be obeyed then.
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    static const ExitReport report(*this);
    TheCrashReports().Begin();
    {
        const std::lock_guard lock(m_lock);
        m_modules.reserve(m_modules.size() + names.size());
    }
    for (const std::string& name : names) {
        if (!IsLoaded(name)) LoadModule(directory, name);
    }
    SortModules();
    m_scanned = true;
    return true;
}

std::string ModuleSwitch::LoadOne(const std::string& file) {
    const std::string directory = ModuleDirectory();
    std::string fault = Unsafe(WalkPath(directory));
    if (!fault.empty()) return fault;
    const std::string path = directory + "/" + file;
    if (access(path.c_str(), F_OK) != 0) return path + ": " + std::strerror(errno);
    {
        const std::lock_guard lock(m_lock);
        m_modules.reserve(m_modules.size() + 1);
    }
    LoadModule(directory, file);
    SortModules();
    if (IsLoaded(file)) return {};
    return TheModuleBoard().Reason(file);
}

void ModuleSwitch::SortModules() {
    const std::lock_guard lock(m_lock);
    std::sort(m_modules.begin(), m_modules.end(),
              [](const Module& a, const Module& b) { return a.name < b.name; });
}

bool ModuleSwitch::IsLoaded(const std::string& name) const {
    return std::any_of(m_modules.begin(), m_modules.end(),
                       [&](const Module& module) { return module.name == name; });
}

bool ModuleSwitch::HasObject(const ModuleObject& object) const {
    return std::any_of(m_modules.begin(), m_modules.end(),
                       [&](const Module& module) { return module.object.IsSame(object); });
}

// All memory for the module's record is allocated before the module is loaded, so that none is
// loaded and then forgotten.
void ModuleSwitch::LoadModule(const std::string& directory, const std::string& name) {
    // Load the file that was checked, even if a link changes meanwhile.
    const PathReport file = WalkPath(directory + "/" + name);
    std::string fault = Unsafe(file);
    if (fault.empty()) fault = LookAtLibrary(file.resolved.c_str()).text;
    Module module;
    if (fault.empty()) module.settings = ReadModuleSettings(ModuleName(name), fault);
    TheModuleBoard().Add(name, module.settings);
    if (!fault.empty())
        return LeaveOut(name, ModuleState::kNotLoaded, "is left out", fault.c_str());
    if (!module.settings.isEnabled) {
        TheModuleBoard().Set(name, ModuleState::kDisabled, "by " + module.settings.file);
        return Report(name, "is disabled", module.settings.file.c_str());
    }
    fault = TheCrashReports().WhyHeldBack(ModuleName(name), module.settings);
    if (!fault.empty()) return LeaveOut(name, ModuleState::kDisabled, "is disabled", fault.c_str());
    Announce(name, "loading");
    module.name = name;
    const bool isIsolated = module.settings.isIsolated;
    isIsolated ? LoadIsolated(std::move(module), file.resolved)
               : LoadInside(std::move(module), file.resolved);
}

void ModuleSwitch::LoadInside(Module module, const std::string& path) {
    const std::string name = module.name;
    module.library = OpenModule(name, path);
    if (module.library == nullptr) {
        const std::string text = LoaderText(dlerror());
        return LeaveOut(name, ModuleState::kNotLoaded, "cannot be loaded", text.c_str());
    }
    std::string reason = module.object.Take(dlsym(module.library, "kemdModule"), name);
    if (reason.empty() && HasObject(module.object)) reason = "it is loaded under another name";
    if (!reason.empty()) {
        LeaveOut(name, ModuleState::kNotLoaded, "is left out", reason.c_str());
        return CloseModule(name, module.library);
    }
    TheModuleBoard().Describe(name, module.object);
    TheModuleBoard().Set(name, ModuleState::kStopped);
    const std::lock_guard lock(m_lock);
    m_modules.push_back(std::move(module));
    KemdTrace(kTag, 1, "module %s loaded", name.c_str());
}

// One whose process has ended stays in the list: it may be started again.
void ModuleSwitch::LoadIsolated(Module module, const std::string& path) {
    module.isolated = std::make_unique<IsolatedModule>(m_isolated, module.name, path);
    const std::string reason = LoadProcess(module);
    module.failed = !reason.empty();
    if (module.failed && !module.isolated->HasEnded()) {
        return LeaveOut(module.name, ModuleState::kNotLoaded, "cannot be loaded", reason.c_str());
    }
    const std::lock_guard lock(m_lock);
    m_modules.push_back(std::move(module));
}

// Empty, or why the module is not in a process of its own now.
std::string ModuleSwitch::LoadProcess(Module& module) {
    std::string reason;
    Thrown thrown{};
    const bool returned = CallModule(module.name, "load", thrown,
                                     [&] { reason = module.isolated->Load(module.settings); });
    if (!returned) reason = thrown.data();
    if (reason.empty()) reason = module.object.Take(module.isolated->Object(), module.name);
    if (!reason.empty()) return reason;
    TheModuleBoard().Describe(module.name, module.object);
    TheModuleBoard().Set(module.name, ModuleState::kStopped);
    TheModuleBoard().SetProcess(module.name, module.isolated->Process());
    KemdTrace(kTag, 1, "module %s loaded in process %d", module.name.c_str(),
              module.isolated->Process());
    return {};
}

void ModuleSwitch::StartAllModules() {
    const std::lock_guard calls(m_calls);
    m_isStopping = false;
    // Registered once more: the handlers registered last, now those of the modules, run first.
    static const ExitReport report(*this);
    while (Module* const module = NextToStart()) StartModule(*module);
    for (const Module& module : m_modules) {
        const char* const missing = MissingFor(module);
        if (module.startedAs != 0 || module.failed || missing == nullptr) continue;
        constexpr const char* kWhat = "is not started: it needs a module that does not run";
        LeaveOut(module.name, ModuleState::kStopped, kWhat, missing);
        TheModuleBoard().Set(module.name, ModuleState::kStopped,
                             std::string("it needs ") + missing + ", which does not run");
    }
    ShowRunning();
}

void ModuleSwitch::ShowRunning() const {
    const auto running = std::count_if(m_modules.begin(), m_modules.end(),
                                       [](const Module& module) { return module.startedAs != 0; });
    ShowStatus("running, %d module%s", static_cast<int>(running), running == 1 ? "" : "s");
}

bool ModuleSwitch::Runs(const std::string& name) const {
    return std::any_of(m_modules.begin(), m_modules.end(), [&](const Module& module) {
        return module.startedAs != 0 && ModuleName(module.name) == name;
    });
}

// The first module that must run before this one and does not; null: it may be started.
const char* ModuleSwitch::MissingFor(const Module& module) const {
    const char* const* name = module.object.StartAfter();
    while (*name != nullptr && Runs(*name)) ++name;
    return *name;
}

ModuleSwitch::Module* ModuleSwitch::NextToStart() {
    const auto next = std::find_if(m_modules.begin(), m_modules.end(), [this](Module& module) {
        return module.startedAs == 0 && !module.failed && module.isWanted &&
               MissingFor(module) == nullptr;
    });
    return next != m_modules.end() ? &*next : nullptr;
}

ModuleSwitch::Module* ModuleSwitch::LastStarted() {
    const auto last = std::max_element(
        m_modules.begin(), m_modules.end(),
        [](const Module& a, const Module& b) { return a.startedAs < b.startedAs; });
    return last != m_modules.end() && last->startedAs != 0 ? &*last : nullptr;
}

// False when the module refuses its settings, and why.
bool ModuleSwitch::Configure(Module& module, Thrown& reason) {
    if (!module.object.HasConfigure()) return true;
    const std::string name = ModuleName(module.name);
    const std::unique_ptr<KemdConfig, void (*)(KemdConfig*)> config(
        KemdConfigOpen(module.settings.file.c_str(), "Settings", name.c_str()), KemdConfigClose);
    if (config == nullptr) throw std::bad_alloc();
    int result = 0;
    const bool returned = CallModule(module.name, "configure", reason,
                                     [&] { result = module.object.Configure(config.get()); });
    if (returned && result == 0) return true;
    if (returned) std::snprintf(reason.data(), reason.size(), "result %d", result);
    return false;
}

// An isolated one is ended, too; one whose process has ended was reported then.
void ModuleSwitch::FailToStart(Module& module, const char* what, const char* reason) {
    module.failed = true;
    if (module.isolated != nullptr) {
        if (module.isolated->HasEnded()) {
            return TheModuleBoard().Change(module.name, ModuleState::kStarting,
                                           ModuleState::kFailed, reason);
        }
        module.isolated->Unload();
        module.startedAs = 0;
    } else {
        module.isKept = true;
    }
    LeaveOut(module.name, ModuleState::kFailed, what, reason);
}

void ModuleSwitch::StartModule(Module& module) {
    TheModuleBoard().Set(module.name, ModuleState::kStarting);
    module.failed = false;
    if (module.isolated != nullptr && !module.isolated->IsAlive()) {
        const std::string fault = LoadProcess(module);
        if (!fault.empty()) return FailToStart(module, "cannot be loaded", fault.c_str());
        TheModuleBoard().Set(module.name, ModuleState::kStarting);
    }
    Thrown reason{};
    if (!Configure(module, reason)) {
        return FailToStart(module, "refused its settings", reason.data());
    }
    const ThreadIds before = LiveThreads();
    Announce(module.name, "starting");
    int result = 0;
    const bool returned =
        CallModule(module.name, "start", reason, [&] { result = module.object.Start(); });
    if (returned && result == 0) {
        if (module.startedAs == 0) module.startedAs = ++m_starts;
        TheModuleBoard().Change(module.name, ModuleState::kStarting, ModuleState::kRunning);
        KemdTrace(kTag, 1, "module %s started", module.name.c_str());
    } else {
        if (returned) std::snprintf(reason.data(), reason.size(), "result %d", result);
        FailToStart(module, "failed to start", reason.data());
    }
    if (module.isolated != nullptr) return;
    ThreadIds threads = Without(LiveThreads(), before);
    TheModuleBoard().SetThreads(module.name, threads);
    const std::lock_guard lock(m_lock);
    module.threads = std::move(threads);
}

void ModuleSwitch::StopAllModules() {
    const std::lock_guard calls(m_calls);
    m_isStopping = true;
    while (Module* const module = LastStarted()) StopModule(*module);
}

void ModuleSwitch::StopModule(Module& module) {
    TheModuleBoard().Set(module.name, ModuleState::kStopping);
    Announce(module.name, "stopping");
    module.startedAs = 0;
    if (module.isolated != nullptr && m_isStopping) module.isolated->ExpectDaemonStop();
    Thrown thrown{};
    module.failed = !CallModule(module.name, "stop", thrown, [&] { module.object.Stop(); });
    module.isKept = module.isKept || (module.failed && module.isolated == nullptr);
    if (module.failed) {
        TheModuleBoard().Set(module.name, ModuleState::kFailed, thrown.data());
        Report(module.name, "failed to stop", thrown.data());
    } else {
        TheModuleBoard().Set(module.name, ModuleState::kStopped);
        KemdTrace(kTag, 1, "module %s stopped", module.name.c_str());
    }
}

const ModuleSwitch::Module* ModuleSwitch::OwnerOf(pid_t thread) const {
    const auto owner =
        std::find_if(m_modules.begin(), m_modules.end(), [thread](const Module& module) {
            return std::binary_search(module.threads.begin(), module.threads.end(), thread);
        });
    return owner == m_modules.end() ? nullptr : &*owner;
}

// Everything has been stopped, so a thread that is newer than the modules runs code of one of them,
// or will return into it.
bool ModuleSwitch::ThreadsAreLeft() const {
    AwaitOnly(m_threadsBefore);
    bool areLeft = false;
    ThreadList list;
    pid_t thread = list.Next();
    for (; thread > 0; thread = list.Next()) {
        if (std::binary_search(m_threadsBefore.begin(), m_threadsBefore.end(), thread)) continue;
        areLeft = true;
        const Module* const owner = OwnerOf(thread);
        KemdMessage(kTag, "thread %d (%s) is left behind, it came up %s%s", thread,
                    ThreadName(thread).data(),
                    owner != nullptr ? "in the start of module " : "later",
                    owner != nullptr ? owner->name.c_str() : "");
    }
    return areLeft || thread < 0;
}

bool ModuleSwitch::UnloadModules(uint32_t /*options*/) {
    StopAllModules();
    m_control.Stop();
    const std::lock_guard calls(m_calls);
    for (Module& module : m_modules) {
        if (module.isolated != nullptr) module.isolated->Unload();
    }
    m_isolated.Stop();
    bool isAllUnloaded = true;
    const bool keep = !m_modules.empty() && ThreadsAreLeft();
    if (keep) KemdMessage(kTag, "threads of modules may still run: no module is unloaded");
    for (auto module = m_modules.rbegin(); module != m_modules.rend(); ++module) {
        if (module->isolated != nullptr) continue;
        // After a failed start or stop something may still be running in there.
        if (module->isKept || keep) {
            isAllUnloaded = false;
        } else {
            CloseModule(module->name, module->library);
        }
    }
    const std::lock_guard lock(m_lock);
    m_modules.clear();
    TheModuleBoard().Clear();
    m_scanned = false;
    return isAllUnloaded;
}

void ModuleSwitch::NotifyModules(uint32_t code, void* data, uint32_t /*word*/) {
    const std::lock_guard calls(m_calls);
    m_isStopping = m_isStopping || code == kNotifyStop;
    for (const Module& module : m_modules) {
        if (module.startedAs == 0 || !module.object.HasNotify()) continue;
        Thrown thrown{};
        if (CallModule(module.name, "notify", thrown, [&] { module.object.Notify(code, data); })) {
            continue;
        }
        Report(module.name, "failed to take a notification", thrown.data());
    }
}

void ModuleSwitch::ReportEnd(const char* what) {
    if (getpid() != m_process) return;
    if (const ModuleCall* const call = ModuleCall::Current()) {
        return KemdMessage(kTag, "%s in the %s of module %s", what, call->Name(), call->Module());
    }
    const pid_t thread = gettid();
    const std::lock_guard lock(m_lock);
    if (thread == m_process || m_modules.empty()) return;  // no module's thread, or after them all
    const Module* const owner = OwnerOf(thread);
    KemdMessage(kTag, "%s in thread %d (%s), which came up %s%s", what, thread,
                ThreadName(thread).data(), owner != nullptr ? "in the start of module " : "later",
                owner != nullptr ? owner->name.c_str() : "");
}

// The three entry points that the daemon resolves, and the report when a module ends the process.
static ModuleSwitch g_switch;
static std::atomic<int> g_references{0};

// In force while this library is loaded.
static class EndReport {
  public:
    EndReport() {
        m_previous = std::set_terminate(ReportTerminate);
        (void)std::at_quick_exit([] { g_switch.ReportEnd("the process is ended"); });
    }
    ~EndReport() { std::set_terminate(m_previous); }
    EndReport(const EndReport&) = delete;
    EndReport& operator=(const EndReport&) = delete;

  private:
    [[noreturn]] static void ReportTerminate() {
        g_switch.ReportEnd(
            "std::terminate, for an uncaught exception or a thread that was not joined,");
        m_previous();
        std::abort();
    }

    static inline std::terminate_handler m_previous = nullptr;
} g_endReport;

extern "C" {

KEMD_API void SW_AddRef() {
    ++g_references;
}

// With the last reference all modules go, even if no one called UnloadModules.
KEMD_API void SW_Release() {
    if (--g_references == 0) g_switch.UnloadModules(0);
}

// `identifier` 0 is the module-control interface, the only one. Adds a reference.
KEMD_API bool SW_QueryInterface(int32_t identifier, IModuleSwitch** interface) {
    if (identifier != 0 || interface == nullptr) return false;
    SW_AddRef();
    *interface = &g_switch;
    return true;
}

}  // extern "C"
