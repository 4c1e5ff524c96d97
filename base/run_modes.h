// The run modes that an option of kemd selects. The command line, the help text, the shells'
// completion and what kemdctl shows come from this table.
#pragma once

#include "kemd/module_switch.h"

struct RunModeOption {
    RunMode mode;
    const char* option;
    const char* name;    // for users
    const char* traced;  // Required: the trace spells one of them its own way
    const char* help;
};

inline constexpr RunModeOption kRunModeOptions[] = {
    {kRunModeAgentless, "-agentless", "agentless", "Agentsless", "agentless"},
    {kRunModeInstall, "-ovins", "OVINS", "OVINS", "for the installation manager"},
    {kRunModeUpdate, "-ovupd", "OVUPD", "OVUPD", "for the update manager"},
};
