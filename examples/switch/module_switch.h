// The reference switch library: loads the extension modules of one directory and controls them.
//
// One bad module never stops the others: what cannot be loaded, has another interface version,
// fails or throws is traced by name with the reason and left out. Called on the daemon's initial
// thread.
#pragma once

#include <string>
#include <vector>

#include "kemd/module.h"
#include "kemd/module_switch.h"

class ModuleSwitch : public IModuleSwitch {
  public:
    // Reads the directory at the first call, and again when a rescan is asked for: modules that
    // came since are then added. False when the directory cannot be read.
    bool LoadModules(ModuleLoadParams* params) override;
    bool UnloadModules(uint32_t options) override;
    // In the order of their names. Modules that run already are not started again.
    void StartAllModules() override;
    // In reverse order.
    void StopAllModules() override;
    void NotifyModules(uint32_t code, void* data, uint32_t word) override;

  private:
    struct Module {
        std::string name;  // of the file
        void* library;     // from dlopen
        const KemdModule* entry;
        bool failed;  // in start or stop
        bool started;
    };

    [[nodiscard]] bool IsLoaded(const std::string& name) const;
    [[nodiscard]] bool HasEntry(const KemdModule* entry) const;
    void LoadModule(const std::string& directory, const std::string& name);
    static void StartModule(Module& module);

    bool m_scanned = false;
    std::vector<Module> m_modules;  // sorted by name
};
