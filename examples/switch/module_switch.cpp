#include "module_switch.h"

#include <cxxabi.h>
#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "file_safety.h"
#include "kemd/trace.h"
#include "signal_mask.h"

namespace {

constexpr const char* kTag = "switch";
constexpr const char* kDefaultDirectory = "/usr/lib/kemd/modules";

std::string ModuleDirectory() {
    const char* directory = std::getenv("OV_MODULE_DIR");
    return directory != nullptr && *directory != '\0' ? directory : kDefaultDirectory;
}

// The names of all files "*.so", sorted. False when the directory cannot be read.
bool ListModules(const std::string& directory, std::vector<std::string>& names) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), closedir);
    if (!entries) {
        KemdMessage(kTag, "cannot read the module directory %s (%s)", directory.c_str(),
                    std::strerror(errno));
        return false;
    }
    while (const dirent* entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.ends_with(".so")) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return true;
}

void Report(const std::string& name, const char* what, const char* reason) {
    KemdMessage(kTag, "module %s %s: %s", name.c_str(), what, reason);
}

// Puts the signal mask back at the end of a call, however it ends, and says so.
struct MaskGuard {
    const std::string& name;
    SignalMask mask;

    explicit MaskGuard(const std::string& module) : name(module) {}
    MaskGuard(const MaskGuard&) = delete;
    MaskGuard& operator=(const MaskGuard&) = delete;
    ~MaskGuard() {
        if (mask.Restore()) Report(name, "changed the signal mask of the daemon", "put back");
    }
};

// Calls into a module and says what it threw. A cancelled thread is not a failure.
template <typename Call>
bool CallModule(const std::string& name, const char* what, Call call) {
    const MaskGuard guard(name);
    try {
        call();
        return true;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        Report(name, what, error.what());
    } catch (...) {
        Report(name, what, "unknown exception");
    }
    return false;
}

// What makes a library a module of this version; null when it is one.
const char* Refuse(const KemdModule* entry) {
    if (entry == nullptr) return "it does not export kemdModule";
    if (entry->version != KEMD_MODULE_VERSION) return "its interface version is another";
    if (entry->start == nullptr || entry->stop == nullptr) return "start or stop is missing";
    return nullptr;
}

}  // namespace

bool ModuleSwitch::LoadModules(ModuleLoadParams* params) {
    const bool rescan = (params->flags & kForceRescan) != 0;
    if (m_scanned && !rescan) return true;
    const std::string directory = ModuleDirectory();
    KemdTrace(kTag, 2, "loading modules from %s (run mode %d, rescan %d)", directory.c_str(),
              params->runMode, rescan ? 1 : 0);
    std::vector<std::string> names;
    if (!ListModules(directory, names)) return false;
    const std::string reason = Unsafe(WalkPath(directory));
    if (!reason.empty()) {
        KemdMessage(kTag, "no module is loaded: %s", reason.c_str());
        return false;
    }
    // A module that cancels its caller would end the thread that the daemon lives on while the
    // others run. Never switched back: a request that is pending would be obeyed then.
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    if (m_modules.empty()) m_threadsBefore = LiveThreads();
    for (const std::string& name : names) {
        if (!IsLoaded(name)) LoadModule(directory, name);
    }
    std::sort(m_modules.begin(), m_modules.end(),
              [](const Module& a, const Module& b) { return a.name < b.name; });
    m_scanned = true;
    return true;
}

bool ModuleSwitch::IsLoaded(const std::string& name) const {
    return std::any_of(m_modules.begin(), m_modules.end(),
                       [&](const Module& module) { return module.name == name; });
}

bool ModuleSwitch::HasEntry(const KemdModule* entry) const {
    return std::any_of(m_modules.begin(), m_modules.end(),
                       [&](const Module& module) { return module.entry == entry; });
}

void ModuleSwitch::LoadModule(const std::string& directory, const std::string& name) {
    void* library = nullptr;
    // What was looked at is what is loaded, whatever becomes of a link meanwhile.
    const PathReport file = WalkPath(directory + "/" + name);
    const std::string unsafe = Unsafe(file);
    if (!unsafe.empty()) return Report(name, "is left out", unsafe.c_str());
    // dlopen is declared not to throw, but an initialiser of the module may: the compiler must not
    // see whom it calls, or it leaves the handler out.
    void* (*volatile const open)(const char*, int) = dlopen;
    const bool returned = CallModule(name, "cannot be loaded", [&] {
        library = open(file.resolved.c_str(), RTLD_NOW | RTLD_LOCAL);
    });
    if (!returned) return;
    if (library == nullptr) return Report(name, "cannot be loaded", dlerror());

    const auto* entry = static_cast<const KemdModule*>(dlsym(library, "kemdModule"));
    const char* reason = HasEntry(entry) ? "it is loaded under another name" : Refuse(entry);
    if (reason != nullptr) {
        Report(name, "is left out", reason);
        dlclose(library);
        return;
    }
    m_modules.push_back({name, library, entry, false, false, {}});
    KemdTrace(kTag, 1, "module %s loaded", name.c_str());
}

void ModuleSwitch::StartAllModules() {
    for (Module& module : m_modules) {
        if (!module.started && !module.failed) StartModule(module);
    }
}

void ModuleSwitch::StartModule(Module& module) {
    const ThreadIds before = LiveThreads();
    int result = 0;
    module.started =
        CallModule(module.name, "failed to start", [&] { result = module.entry->start(); }) &&
        result == 0;
    module.threads = Without(LiveThreads(), before);
    module.failed = !module.started;
    if (module.started) {
        KemdTrace(kTag, 1, "module %s started", module.name.c_str());
    } else if (result != 0) {
        Report(module.name, "failed to start", ("result " + std::to_string(result)).c_str());
    }
}

void ModuleSwitch::StopAllModules() {
    for (auto module = m_modules.rbegin(); module != m_modules.rend(); ++module) {
        if (!module->started) continue;
        module->started = false;
        module->failed = !CallModule(module->name, "failed to stop", module->entry->stop);
        if (!module->failed) KemdTrace(kTag, 1, "module %s stopped", module->name.c_str());
    }
}

// Everything has been stopped, so a thread that was not there before the modules runs code of one
// of them, or will return into it.
bool ModuleSwitch::ThreadsAreLeft() const {
    AwaitEnd(Without(LiveThreads(), m_threadsBefore));
    const ThreadIds now = LiveThreads();
    const ThreadIds left = Without(now, m_threadsBefore);
    for (const pid_t thread : left) {
        const auto owner =
            std::find_if(m_modules.begin(), m_modules.end(), [&](const Module& module) {
                return std::binary_search(module.threads.begin(), module.threads.end(), thread);
            });
        const bool known = owner != m_modules.end();
        KemdMessage(kTag, "thread %d (%s) is left behind, it came up %s%s", thread,
                    ThreadName(thread).c_str(), known ? "in the start of module " : "later",
                    known ? owner->name.c_str() : "");
    }
    return !left.empty() || now.empty();
}

bool ModuleSwitch::UnloadModules(uint32_t /*options*/) {
    StopAllModules();
    const bool keep = !m_modules.empty() && ThreadsAreLeft();
    if (keep) KemdMessage(kTag, "threads of modules may still run: no module is unloaded");
    for (auto module = m_modules.rbegin(); module != m_modules.rend(); ++module) {
        // What a failed start or stop left behind may still be running in there.
        if (!module->failed && !keep) dlclose(module->library);
    }
    m_modules.clear();
    m_scanned = false;
    return true;
}

void ModuleSwitch::NotifyModules(uint32_t code, void* data, uint32_t /*word*/) {
    for (const Module& module : m_modules) {
        if (!module.started || module.entry->notify == nullptr) continue;
        CallModule(module.name, "failed to take a notification",
                   [&] { module.entry->notify(code, data); });
    }
}
