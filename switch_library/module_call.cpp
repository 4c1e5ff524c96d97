#include "switch_library/module_call.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "base/crash_handler.h"
#include "base/module_object.h"
#include "kemd/performance.h"
#include "kemd/trace.h"
#include "switch_library/module_board.h"
#include "switch_library/service_manager.h"

namespace {

// Not thread_local: in a library that takes the dynamic loader's lock.
std::atomic<const ModuleCall*> g_current{nullptr};
std::atomic<pid_t> g_thread{0};

// An initialiser that throws leaves the loader in the middle of its work, with its lock held. Every
// further load or unload, also of this library, would wait for ever or destroy objects that were
// never constructed; quick_exit does neither, and the daemon cleans up in its handler.
[[noreturn]] void EndWithoutLoader(const std::string& name, const char* thrown) {
    constexpr const char* kReason =
        "module %s threw an exception out of an initialiser (%s): the dynamic loader cannot be "
        "used any more, the daemon ends; remove or mend the module";
    KemdMessage(kTag, kReason, name.c_str(), thrown);
    WriteToJournal(kReason, name.c_str(), thrown);
    std::quick_exit(1);
}

}  // namespace

ModuleCall::ModuleCall(const std::string& module, const char* name)
    : m_module(module), m_name(name) {
    pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
    g_thread = gettid();
    g_current = this;
    TheModuleBoard().BeginCall(module, name);
}

ModuleCall::~ModuleCall() {
    if (IsForked()) _exit(1);
    g_current = nullptr;
    TheModuleBoard().EndCall();
    if (RestoreMask()) {
        KemdMessage(kTag, "module %s changed the signal mask of the daemon: put back", Module());
    }
}

// True when the mask had been changed.
bool ModuleCall::RestoreMask() const {
    sigset_t found{};
    pthread_sigmask(SIG_SETMASK, &m_mask, &found);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (sigismember(&found, signal) != sigismember(&m_mask, signal)) return true;
    }
    return false;
}

const ModuleCall* ModuleCall::Current() {
    return gettid() == g_thread ? g_current.load() : nullptr;
}

void* OpenModule(const std::string& name, const std::string& path) {
    // dlopen is declared not to throw, but an initialiser of the module may. The volatile pointer
    // hides dlopen from the compiler, which would otherwise leave the handler out.
    void* (*volatile const open)(const char*, int) = dlopen;
    const ModuleCall guard(name, "load");
    try {
        void* const library = open(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        NoteLoadedObjects(path.c_str(), name.c_str());
        return library;
    } catch (const std::exception& error) {
        if (!guard.IsForked()) EndWithoutLoader(name, error.what());
    } catch (...) {
        if (!guard.IsForked()) EndWithoutLoader(name, "unknown exception");
    }
    _exit(1);
}

void CloseModule(const std::string& name, void* library) {
    const ModuleCall guard(name, "unload");
    // Series go by the name of the file, which may be another behind a link.
    link_map* file = nullptr;
    if (dlinfo(library, RTLD_DI_LINKMAP, &file) == 0) {
        KemdSeriesForget(ModuleName(std::strrchr(file->l_name, '/') + 1).c_str());
    }
    dlclose(library);
    NoteLoadedObjects();
}
