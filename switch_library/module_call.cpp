#include "switch_library/module_call.h"

#include <atomic>

#include "kemd/trace.h"

// Not thread_local: that of a library takes the dynamic loader's lock.
static std::atomic<const ModuleCall*> g_current{nullptr};
static std::atomic<pid_t> g_thread{0};

ModuleCall::ModuleCall(const std::string& module, const char* name)
    : m_module(module), m_name(name) {
    g_thread = gettid();
    g_current = this;
}

ModuleCall::~ModuleCall() {
    if (IsForked()) _exit(1);
    g_current = nullptr;
    if (m_mask.Restore()) {
        KemdMessage("switch", "module %s changed the signal mask of the daemon: put back",
                    Module());
    }
}

const ModuleCall* ModuleCall::Current() {
    return gettid() == g_thread ? g_current.load() : nullptr;
}
