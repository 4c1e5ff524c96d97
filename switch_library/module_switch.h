// The reference switch library: loads the extension modules of one directory and controls them.
//
// One bad module never stops the others: a module that cannot be loaded, has another interface
// version, fails, throws, or is writable by others than root is traced by name with the reason and
// left out. The daemon calls on its initial thread, which cannot be cancelled after the first load;
// what clients of the control socket ask for comes on the control server's worker. One lock keeps
// calls into modules apart.
//
// Without memory a call throws std::bad_alloc. What was loaded and started until then is known, and
// stopping and unloading it needs no memory.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/module_object.h"
#include "kemd/module_switch.h"
#include "services/module_settings.h"
#include "switch_library/control_server.h"
#include "switch_library/isolated_module.h"
#include "switch_library/isolated_modules.h"
#include "switch_library/live_threads.h"
#include "switch_library/module_call.h"

class ModuleSwitch : public IModuleSwitch {
  public:
    ModuleSwitch();

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
        std::string name;         // of the file
        void* library = nullptr;  // from dlopen; null when it is isolated
        std::unique_ptr<IsolatedModule> isolated;
        ModuleObject object;
        ModuleSettings settings;
        bool failed = false;   // in configure, start or stop
        bool isKept = false;   // failed once: something of it may still run
        bool isWanted = true;  // not stopped by the administrator
        int startedAs = 0;     // the place in the order of the starts, from 1; 0: does not run
        ThreadIds threads;     // created by its start
    };

    // module_requests.cpp: what the control socket asks for. `name` is without ".so". They fill the
    // outcome and return why not, or nothing.
    std::string Execute(const ControlRequest& request);
    std::string StartOne(const std::string& name, ControlOutcome& outcome);
    std::string StopOne(const std::string& name, ControlOutcome& outcome);
    std::string RestartOne(const std::string& name, ControlOutcome& outcome);
    std::string ReloadOne(const std::string& name, ControlOutcome& outcome);
    std::string RequestOne(const ControlRequest& request);
    void AskHealth();
    // Starts an isolated module again whose process has ended.
    void ReviveOne(const std::string& file);
    bool PostRevive(const std::string& file);
    // It is isolated, and its process has ended.
    [[nodiscard]] static bool HasNoProcess(const Module& module);
    [[nodiscard]] Module* Find(const std::string& name);
    // module_switch.cpp; `file` is with ".so".
    std::string LoadOne(const std::string& file);
    void SortModules();
    // Starts what is wanted and can be started by now.
    void StartWanted(std::vector<std::string>& started);
    [[nodiscard]] bool Needs(const Module& module, const std::string& name) const;
    // Empty, or why the module stays in memory.
    std::string UnloadOne(Module& module);
    void Erase(Module& module);
    void Withdraw(Module& module);
    [[nodiscard]] std::string ThreadsThatMayBeOf(const Module& module) const;

    [[nodiscard]] bool IsLoaded(const std::string& name) const;
    [[nodiscard]] bool HasObject(const ModuleObject& object) const;
    void LoadModule(const std::string& directory, const std::string& name);
    void LoadInside(Module module, const std::string& path);
    void LoadIsolated(Module module, const std::string& path);
    std::string LoadProcess(Module& module);
    [[nodiscard]] bool Runs(const std::string& name) const;
    [[nodiscard]] const char* MissingFor(const Module& module) const;
    [[nodiscard]] Module* NextToStart();
    [[nodiscard]] Module* LastStarted();
    bool Configure(Module& module, Thrown& reason);
    void StartModule(Module& module);
    void FailToStart(Module& module, const char* what, const char* reason);
    void StopModule(Module& module);
    void ShowRunning() const;
    [[nodiscard]] bool ThreadsAreLeft() const;
    [[nodiscard]] const Module* OwnerOf(pid_t thread) const;

    bool m_scanned = false;
    pid_t m_process = 0;        // the daemon; the id of the initial thread as well
    ThreadIds m_threadsBefore;  // there before the first module was loaded
    ThreadIds m_ownThreads;     // these and the control server's
    IsolatedModules m_isolated{[this](const std::string& file) { return PostRevive(file); }};
    std::vector<Module> m_modules;  // sorted by name
    int m_starts = 0;
    bool m_isStopping = false;  // the daemon is: no request is served
    // Held around calls into modules and all changes of the list.
    std::mutex m_calls;
    // Held as well while m_modules or its threads change: ReportEnd reads them from other threads.
    std::mutex m_lock;
    ControlServer m_control{[this](const ControlRequest& request) { return Execute(request); }};
};
