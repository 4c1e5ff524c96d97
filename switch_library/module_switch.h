// The reference switch library: loads the extension modules of one directory and controls them.
//
// One bad module never stops the others: a module that cannot be loaded, has another interface
// version, fails, throws, or is writable by others than root is traced by name with the reason and
// left out. Called on the daemon's initial thread, which cannot be cancelled after the first load.
//
// Without memory a call throws std::bad_alloc. What was loaded and started until then is known, and
// stopping and unloading it needs no memory.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "base/module_object.h"
#include "kemd/module_switch.h"
#include "switch_library/live_threads.h"
#include "switch_library/module_settings.h"

class ModuleSwitch : public IModuleSwitch {
  public:
    // Reads the directory at the first call, and again for a rescan, which adds modules that are
    // new. False when the directory cannot be read or is writable by others than root. If the
    // initialiser of a module throws, the process ends.
    bool LoadModules(ModuleLoadParams* params) override;
    // Stops what runs. While threads of modules are left, all modules stay in memory. False when a
    // module stays: the process should then end without the destructors of static objects.
    bool UnloadModules(uint32_t options) override;
    // In the order of their names, but each after those that it names. Modules that run already
    // are not started again.
    void StartAllModules() override;
    // In the reverse order of the starts.
    void StopAllModules() override;
    void NotifyModules(uint32_t code, void* data, uint32_t word) override;

    // Traces `what`, and the call or thread of the module that the calling thread belongs to. For
    // handlers that run when the process ends, in any thread. Nothing when no module is involved.
    void ReportEnd(const char* what);

  private:
    struct Module {
        std::string name;  // of the file
        void* library;     // from dlopen
        ModuleObject object;
        ModuleSettings settings;
        bool failed = false;  // in configure, start or stop
        int startedAs = 0;    // the place in the order of the starts, from 1; 0: does not run
        ThreadIds threads;    // created by its start
    };

    [[nodiscard]] bool IsLoaded(const std::string& name) const;
    [[nodiscard]] bool HasObject(const ModuleObject& object) const;
    void LoadModule(const std::string& directory, const std::string& name);
    [[nodiscard]] bool Runs(const std::string& name) const;
    [[nodiscard]] const char* MissingFor(const Module& module) const;
    [[nodiscard]] Module* NextToStart();
    [[nodiscard]] Module* LastStarted();
    bool Configure(Module& module);
    void StartModule(Module& module);
    [[nodiscard]] bool ThreadsAreLeft() const;
    [[nodiscard]] const Module* OwnerOf(pid_t thread) const;

    bool m_scanned = false;
    pid_t m_process = 0;            // the daemon; the id of the initial thread as well
    ThreadIds m_threadsBefore;      // there before the first module was loaded
    std::vector<Module> m_modules;  // sorted by name
    int m_starts = 0;
    // Held while m_modules or its threads change: ReportEnd reads them from other threads.
    std::mutex m_lock;
};
