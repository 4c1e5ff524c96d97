// What the administrator's file says about one module, for the switch library: the section [Module]
// of /etc/kemd/modules.d/NAME.ini. Without a file the defaults hold.
#pragma once

#include <string>

struct ModuleSettings {
    std::string file;
    bool isEnabled = true;
};

// `fault`: why the file cannot be relied on; empty when it can, or there is none.
ModuleSettings ReadModuleSettings(const std::string& name, std::string& fault);
