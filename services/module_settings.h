// What the administrator's file says about one module, for the switch library and kemdctl: the
// section [Module] of /etc/kemd/modules.d/NAME.ini. Without a file the defaults hold.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ModuleSettings {
    std::string file;
    bool isEnabled = true;
    // In a process of its own, which may have less rights and memory.
    bool isIsolated = false;
    std::string user;         // empty: the daemon's
    int64_t memoryLimit = 0;  // bytes; 0: none
    // After it crashed it is started again, as often as there is sense in it.
    bool isRestarted = true;
    // After these a call is named that has not come back: load, configure and start; the others.
    int64_t startTimeoutMs = 10'000;
    int64_t stopTimeoutMs = 10'000;
    std::vector<const char*> wrongKeys;  // their values are not used
};

// `fault`: why the file cannot be relied on; empty when it can, or there is none.
ModuleSettings ReadModuleSettings(const std::string& name, std::string& fault);
