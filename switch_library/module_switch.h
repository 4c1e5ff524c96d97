// The reference switch library: loads the extension modules of one directory and controls them.
//
// One bad module never stops the others: what cannot be loaded, has another interface version,
// fails or throws is traced by name with the reason and left out; so is one that others than root
// may write. Called on the daemon's initial thread, which nobody can cancel from the first load on.
//
// When memory ends, std::bad_alloc comes out of the call; what was loaded and started until then is
// known, and stopping and unloading it takes no memory.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kemd/module.h"
#include "kemd/module_switch.h"
#include "switch_library/live_threads.h"

class ModuleSwitch : public IModuleSwitch {
  public:
    // Reads the directory at the first call, and again when a rescan is asked for: modules that
    // came since are then added. False when the directory cannot be read or others than root may
    // write it. Does not come back from a module whose initialiser throws: the process ends.
    bool LoadModules(ModuleLoadParams* params) override;
    // Stops what runs. While threads of modules are left, all modules stay in memory. False when
    // one stays: the process is then better ended without the destructors of static objects.
    bool UnloadModules(uint32_t options) override;
    // In the order of their names. Modules that run already are not started again.
    void StartAllModules() override;
    // In reverse order.
    void StopAllModules() override;
    void NotifyModules(uint32_t code, void* data, uint32_t word) override;

    // Traces `what` and which module's call, or thread, the calling thread is in. For whoever is
    // about to end the process, in any thread. Nothing when no module is to blame.
    void ReportEnd(const char* what);

  private:
    struct Module {
        std::string name;  // of the file
        void* library;     // from dlopen
        const KemdModule* entry;
        bool failed;  // in start or stop
        bool started;
        ThreadIds threads;  // that came up in its start
    };

    [[nodiscard]] bool IsLoaded(const std::string& name) const;
    [[nodiscard]] bool HasEntry(const KemdModule* entry) const;
    void LoadModule(const std::string& directory, const std::string& name);
    void StartModule(Module& module);
    [[nodiscard]] bool ThreadsAreLeft() const;
    [[nodiscard]] const Module* OwnerOf(pid_t thread) const;

    bool m_scanned = false;
    pid_t m_process = 0;            // the daemon; the id of the initial thread as well
    ThreadIds m_threadsBefore;      // there before the first module was loaded
    std::vector<Module> m_modules;  // sorted by name
    // Held while the list or the threads in it change: ReportEnd reads them in other threads.
    std::mutex m_lock;
};
